# count-tests.awk - turns ctest's JUnit report into the lines that scripts/suite.sh keeps.
function attribute(name,    found) {
    if (!match($0, " " name "=\"[^\"]*\"")) return ""
    found = substr($0, RSTART, RLENGTH)
    sub(/^[^"]*"/, "", found)
    sub(/"$/, "", found)
    return found
}

/<testcase / {
    test = attribute("name")
    status = attribute("status")
    reason = ""
}

match($0, /this machine (lacks|has no) .*/) && reason == "" { reason = substr($0, RSTART, RLENGTH) }

/<\/testcase>/ {
    if (status == "run") {
        ++passed
    } else if (status == "fail") {
        ++failed
    } else if (reason != "") {
        ++skipped
        sub(/<.*/, "", reason)
        print "lacks " reason
    } else {
        ++failed
        print "complaint " test " was not run, and not for want of something that this machine lacks"
    }
}

END {
    print "passed " passed + 0
    print "failed " failed + 0
    print "skipped " skipped + 0
}
