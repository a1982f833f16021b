#!/usr/bin/env bash
# structure.sh BUILD - holds the library to its own plan:
#   - only os/ meets the kernel: no other object file asks for what goes there;
#   - a folder includes only what stands above it;
#   - no circles between files.
# BUILD is a build folder whose qel_objects are built.
set -euo pipefail
readonly objects=$1/libqel/CMakeFiles/qel_objects.dir/__
cd "$(dirname "$0")/../.."
source tests/checks/inclusions.sh

# What the modules get from os/ or from the layers below it, and never from libc themselves.
readonly kernel="
    open open64 openat openat64 creat creat64 close dup dup2 dup3 fcntl fcntl64 pipe pipe2
    read readv pread pread64 write writev pwrite pwrite64 lseek lseek64 ioctl
    fopen fopen64 freopen freopen64 fdopen fclose fread fwrite fputs fputc fgets printf vprintf fprintf
    vfprintf dprintf vdprintf puts putchar perror tmpfile tmpfile64 mkstemp mkstemp64
    __printf_chk __fprintf_chk __vprintf_chk __vfprintf_chk __dprintf_chk __open_2 __open64_2 __read_chk
    opendir fdopendir readdir readdir64 closedir scandir nftw ftw glob
    stat stat64 fstat fstat64 lstat lstat64 fstatat fstatat64 statx access faccessat
    mkdir mkdirat rmdir unlink unlinkat remove rename renameat link symlink readlink chmod fchmod chown
    truncate truncate64 ftruncate ftruncate64 fsync fdatasync sync mount umount umount2
    mmap mmap64 munmap mprotect msync shm_open shmget shmat semget semop semctl ftok
    select pselect poll ppoll __poll_chk epoll_create epoll_create1 epoll_wait eventfd timerfd_create
    tcgetattr tcsetattr tcflush tcdrain tcflow tcsendbreak cfsetspeed
    socket socketpair bind connect accept send sendto sendmsg recv recvfrom recvmsg
    sleep usleep nanosleep clock_nanosleep alarm setitimer
    time gettimeofday settimeofday clock_gettime clock_settime stime
    system popen fork vfork execl execle execlp execv execve execvp posix_spawn wait waitpid kill raise
    signal sigaction pthread_create pthread_mutex_lock pthread_cond_wait pthread_setname_np prctl reboot
    getenv secure_getenv setenv putenv syscall sysconf getpid gettid getppid
"
failed=0
complain() {
    echo "$*"
    failed=1
}

door() {
    local object source found
    local -i seen=0
    while IFS= read -r -d '' object; do
        source=${object#"$objects"/}
        [[ $source != os/* ]] || continue
        seen+=1
        found=$(nm -u "$object" | awk -v kernel="$kernel" '
            BEGIN { split(kernel, names); for (i in names) forbidden[names[i]] = 1 }
            { sub(/@.*/, "", $NF) }
            $NF in forbidden { printf " %s", $NF }')
        [[ -z $found ]] || complain "${source%.o} goes to the kernel past os/:$found"
    done < <(find "$objects" -name '*.o' -print0)
    [[ $seen -gt 0 ]] || complain "no object files in $objects"
}

# Folder, and the folders or headers that it may include. Everybody may include its own.
readonly module="frame product storage comm upgrade ptz video system"
layers() {
    local folder above="os platform/include include/qel"
    echo "include/qel"
    echo "os"
    for folder in $module; do
        echo "$folder $above"
        above+=" $folder"
    done
    echo "platform platform/include os/hook.h"
    echo "board os platform/include include/qel"
    echo "tools/qelboard board os platform/include include/qel"
    echo "tools include/qel"
    echo "examples include/qel"
}

# The composition root names every module.
readonly may_include_all="frame/startup.cpp"

check_layers() {
    awk -v root="$may_include_all" '
        NR == FNR { for (i = 2; i <= NF; ++i) may[$1, $i] = 1; known[$1] = 1; next }
        function folder_of(path) {
            while (sub(/\/[^\/]*$/, "", path)) if (path in known || path == "platform/include") return path
            return ""
        }
        {
            from = folder_of($1); to = folder_of($2)
            if ($1 == root || from == "" || from == to || (from, to) in may || (from, $2) in may) next
            print $1 " may not include " $2
        }' <(layers) <(inclusions)
}

# In the library a source and its header are one: two modules that need each other are a circle too.
check_circles() {
    inclusions | grep -v "^$may_include_all " |
        awk -v modules="^(os|${module// /|})/" '
            { for (i = 1; i <= 2; ++i) if ($i ~ modules) sub(/\.(cpp|c|h)$/, "", $i) }
            $1 != $2' |
        { tsort 2>&1 >/dev/null || true; } | sed -n '/contains a loop/d; s/^tsort: /in a circle: /p'
}

door
found=$(check_layers; check_circles)
[[ -z $found ]] || complain "$found"
exit "$failed"
