// Nothing of the host can be reached through the file tree of a chip.
#include "board/core/tree.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <filesystem>

#include "tests/board/probe.h"

using namespace qel::test;

TEST(BoardTree, KeepsEveryPathBelowItsRoot) {
    const struct {
        const char *path;
        const char *host;  // below the root
    } kPaths[] = {
        {"/", ""},
        {"/a", "/a"},
        {"//a///b/", "/a/b"},
        {"/./a/./b", "/a/b"},
        {"/..", ""},
        {"/../../etc/passwd", "/etc/passwd"},
        {"/a/../../../b", "/b"},
        {"/absolute", "/etc/shadow"},
        {"/absolute/../x", "/etc/x"},
        {"/upwards", "/etc/shadow"},
        {"/folder/deep", "/target/deep"},
        {"/folder/../x", "/x"},
        {"/none/such/file", "/none/such/file"},
    };
    OnBoard here("");
    const FileTree &tree = here.board.chip(0).tree();
    const std::string root = tree.root_dir();
    tree.make_dir("/target");
    ASSERT_EQ(::symlink("/etc/shadow", (root + "/absolute").c_str()), 0);
    ASSERT_EQ(::symlink("../../../etc/shadow", (root + "/upwards").c_str()), 0);
    ASSERT_EQ(::symlink("target", (root + "/folder").c_str()), 0);
    for (const auto &path : kPaths) {
        std::string host;
        EXPECT_EQ(tree.resolve(path.path, true, host), 0) << path.path;
        EXPECT_EQ(host, root + path.host) << path.path;
    }
    std::string host;
    EXPECT_EQ(tree.resolve("/absolute", false, host), 0);
    EXPECT_EQ(host, root + "/absolute");
}

TEST(BoardTree, RefusesWhatIsNoPath) {
    OnBoard here("");
    const FileTree &tree = here.board.chip(0).tree();
    ASSERT_EQ(::symlink("loop", (tree.root_dir() + "/loop").c_str()), 0);
    std::string host;
    EXPECT_EQ(tree.resolve("", true, host), -ENOENT);
    EXPECT_EQ(tree.resolve("relative", true, host), -ENOENT);
    EXPECT_EQ(tree.resolve("/loop", true, host), -ELOOP);
    EXPECT_EQ(tree.resolve("/" + std::string(PATH_MAX, 'x'), true, host), -ENAMETOOLONG);
}

TEST(BoardTree, ShowsTheGateFilesOfTheChipAndNoneOfTheHost) {
    OnBoard here("folders = [\"/mnt/log\"]\n[chip.files]\n\"/mnt/pd/type\" = \"one\\n\"\n");
    const qel_os_ops &os = ops();
    char text[16] = {};
    const int fd = os.open("/mnt/pd/../pd/type", O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(os.read(fd, text, sizeof(text)), 4);
    EXPECT_STREQ(text, "one\n");
    EXPECT_EQ(os.close(fd), 0);

    for (const char *path : {"/dev/null", "/dev/mem", "/etc/passwd", "/proc/self/maps", "/proc/1/comm", ""}) {
        EXPECT_EQ(os.open(path, O_RDONLY, 0), -ENOENT) << path;
    }
    qel_os_file_info info{};
    EXPECT_EQ(os.stat("/mnt/log", &info), 0);
    EXPECT_TRUE(S_ISDIR(info.mode));
    EXPECT_EQ(os.stat("/usr", &info), -ENOENT);
}

TEST(BoardTree, MakesMovesAndRemovesFilesBelowItsRootOnly) {
    OnBoard here("[chip.gpio]\n");
    const qel_os_ops &os = ops();
    const std::string root = here.board.chip(0).tree().root_dir();
    EXPECT_EQ(os.make_dir("/tmp/x", 0755), 0);
    const int fd = os.open("/tmp/x/file", O_CREAT | O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(os.write(fd, "abc", 3), 3);
    EXPECT_EQ(os.close(fd), 0);
    EXPECT_EQ(os.rename("/tmp/x/file", "/../../tmp/moved"), 0);
    EXPECT_TRUE(std::filesystem::exists(root + "/tmp/moved"));
    EXPECT_EQ(os.remove("/tmp/x"), 0);
    EXPECT_EQ(os.remove("/tmp/x"), -ENOENT);

    EXPECT_EQ(os.remove("/dev/gpio"), -EPERM);
    EXPECT_EQ(os.make_dir("/dev/gpio", 0755), -EEXIST);
    EXPECT_EQ(os.rename("/tmp/moved", "/dev/gpio"), -EPERM);
    EXPECT_EQ(os.rename("/tmp/moved", "relative"), -EXDEV);
    EXPECT_EQ(os.open("/tmp/moved/below", O_RDONLY, 0), -ENOTDIR);
}

TEST(BoardTree, ListsNodesBesideFiles) {
    OnBoard here(
        "[chip.gpio]\n[chip.misc]\n[[chip.probe]]\nnode = \"/dev/sub/probe\"\n[chip.files]\n\"/dev/real\" = "
        "\"\"\n");
    const qel_os_ops &os = ops();
    std::vector<std::string> seen;
    const auto visit = [](void *context, const char *name, const qel_os_file_info *info) {
        const char *kind = S_ISCHR(info->mode) ? "c " : S_ISDIR(info->mode) ? "d " : "- ";
        static_cast<std::vector<std::string> *>(context)->push_back(std::string(kind) + name);
        return 0;
    };
    EXPECT_EQ(os.list("/dev", visit, &seen), 0);
    EXPECT_EQ(seen, (std::vector<std::string>{"c gpio", "c qecMisc", "d sub", "- real"}));
    EXPECT_EQ(os.list("/dev/gpio", visit, &seen), -ENOTDIR);
    qel_os_file_info info{};
    EXPECT_EQ(os.stat("/dev/sub", &info), 0);
    EXPECT_TRUE(S_ISDIR(info.mode));
    EXPECT_EQ(os.stat("/dev/sub/probe", &info), 0);
    EXPECT_TRUE(S_ISCHR(info.mode));
    EXPECT_EQ(os.list("/nowhere", visit, &seen), -ENOENT);
    const auto stop = [](void *context, const char *, const qel_os_file_info *) {
        return ++*static_cast<int *>(context);
    };
    int visits = 0;
    EXPECT_EQ(os.list("/dev", stop, &visits), 0);
    EXPECT_EQ(visits, 1);
}

TEST(BoardTree, MapsPathsForTheKeysOfTheOtherLayers) {
    OnBoard here("");
    const qel_world &world = *qel_world_hook();
    char host[PATH_MAX];
    EXPECT_EQ(world.map_path("/var/tmp/envfile", host, sizeof(host)), 0);
    EXPECT_EQ(host, here.board.chip(0).tree().root_dir() + "/var/tmp/envfile");
    EXPECT_EQ(world.map_path("relative", host, sizeof(host)), 0);
    EXPECT_STREQ(host, "relative");
    EXPECT_EQ(world.map_path("/var/tmp/envfile", host, 10), -ENAMETOOLONG);
}
