// SPDX-License-Identifier: BSD-3-Clause
// File names: taking apart, putting together, what is shown of them, sizes, and making directories.
#include <cvutil/cvFilename.h>

#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>

namespace {

std::string shown(const NwFilename& name) {
    std::ostringstream stream;
    stream << name;
    return stream.str();
}

// A directory of its own for each test, gone with it.
class Directory {
public:
    Directory() {
        char name[] = "/tmp/cvFilename_test.XXXXXX";
        if (!::mkdtemp(name)) throw std::runtime_error("mkdtemp");
        myPath = name;
    }
    ~Directory() {
        std::error_code ignored;
        std::filesystem::remove_all(myPath, ignored);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    std::string operator/(const std::string& name) const { return myPath + "/" + name; }
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(*this / name, std::ios::binary) << text;
        return *this / name;
    }

private:
    std::string myPath;
};

bool isDirectory(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Runs work on a thread that has no more rights in the file system than any user.
template <class Work>
void asNobody(const Work& work) {
    std::thread([&] {
        const int nobody = 65534;
        if (::getuid() == 0) {
            ::setfsuid(nobody);
            if (::setfsuid(static_cast<uid_t>(-1)) != nobody) GTEST_SKIP() << "no second user to act as";
        }
        work();
    }).join();
}

// --- names as values ------------------------------------------------------------------------------------

TEST(Filename, isEmptyAtTheStart) {
    const NwFilename name;
    EXPECT_STREQ(name.c_str(), "");
    EXPECT_EQ(name.length(), 0u);
    EXPECT_EQ(name, NwFilename(""));
    EXPECT_EQ(name, NwFilename(static_cast<const char*>(nullptr)));
}

TEST(Filename, isTheTextAsGiven) {
    for (const char* text :
         {"/data/tile_7.dat", "tile", "./a//b/../c", " ", "a b", "\xC3\xA9", "\xFF", "C:\\x"}) {
        const NwFilename name(text);
        EXPECT_STREQ(name.c_str(), text);
        EXPECT_EQ(name.length(), std::string(text).size());
        EXPECT_EQ(NwFilename(std::string(text)), name);
    }
}

TEST(Filename, ofAStringEndsAtANul) {
    const NwFilename name(std::string("tile\0.dat", 9));
    EXPECT_STREQ(name.c_str(), "tile");
    EXPECT_EQ(name.length(), 4u) << "as long as the system takes it to be";
}

TEST(Filename, isAValue) {
    NwFilename a("one");
    const NwFilename b(a);
    a = "two";
    EXPECT_STREQ(b.c_str(), "one");
    EXPECT_STREQ(a.c_str(), "two");
    EXPECT_TRUE(a != b);
    EXPECT_FALSE(a == b);
    a = b;
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
}

TEST(Filename, isComparedByteByByte) {
    EXPECT_NE(NwFilename("a"), NwFilename("A"));
    EXPECT_NE(NwFilename("a/b"), NwFilename("a//b")) << "nothing is normalised";
}

// --- taking apart, putting together ---------------------------------------------------------------------

TEST(Filename, stripPathLeavesWhatStandsBehindTheLastSlash) {
    const struct {
        const char* name;
        const char* last;
    } rows[] = {{"", ""},
                {"tile.dat", "tile.dat"},
                {"/data/tile.dat", "tile.dat"},
                {"./tile", "tile"},
                {"/tile", "tile"},
                {"/", ""},
                {"data/", ""},
                {"a//b", "b"},
                {"a/..", ".."},
                {"..", ".."},
                {"a/b/.", "."},
                {"a\\b", "a\\b"},
                {"a/ ", " "}};
    for (const auto& row : rows)
        EXPECT_EQ(NwFilename(row.name).stripPath(), NwFilename(row.last)) << row.name;
}

TEST(Filename, combinePutsOneSlashBetween) {
    const struct {
        const char* dir;
        const char* name;
        const char* both;
    } rows[] = {{"/inbox", "tile", "/inbox/tile"},
                {"/inbox/", "tile", "/inbox/tile"},
                {"/", "tile", "/tile"},
                {"", "tile", "tile"},
                {"inbox", "", "inbox/"},
                {"", "", ""},
                {".", "tile", "./tile"},
                {"a", "b/c", "a/b/c"}};
    for (const auto& row : rows)
        EXPECT_EQ(NwFilename::combine(row.dir, row.name), NwFilename(row.both)) << row.dir << " " << row.name;
}

// --- what is shown --------------------------------------------------------------------------------------

TEST(Filename, isInsertedAsItIs) {
    EXPECT_EQ(shown("/data/tile 7.dat"), "/data/tile 7.dat");
    EXPECT_EQ(shown(""), "");
    EXPECT_EQ(shown("\xC3\xA9\xFF"), "\xC3\xA9\xFF") << "bytes of letters stay";
    EXPECT_EQ(shown("~ !\\"), "~ !\\");
}

TEST(Filename, showsControlCharactersAsNumbers) {
    EXPECT_EQ(shown("a\nb"), "a\\x0Ab");
    EXPECT_EQ(shown("\x1B[31mred"), "\\x1B[31mred");
    EXPECT_EQ(shown("\r\t\x7F\x01\x1F"), "\\x0D\\x09\\x7F\\x01\\x1F");
    for (char c = 1; c < 0x20; ++c) EXPECT_EQ(shown(std::string(1, c)).size(), 4u) << int(c);
}

TEST(Filename, showsTheControlCharactersAboveAsciiAsNumbersToo) {
    EXPECT_EQ(shown("\x9B\x9B[31m"), "\\x9B\\x9B[31m");
    EXPECT_EQ(shown("\xFF\x9B\x80\x9F\xA0"), "\xFF\\x9B\\x80\\x9F\xA0");
    EXPECT_EQ(shown("a\xC2\x9B"
                    "b"),
              "a\\xC2\\x9B"
              "b")
        << "the same in UTF-8";
    EXPECT_EQ(shown("\xC0\x9B\xE0\x80\x9B"), "\\xC0\\x9B\\xE0\\x80\\x9B") << "or in too many bytes";
    EXPECT_EQ(shown("\xC2\xA0\xC3\x9B\xE2\x82\x9B\xF0\x9F\x9A\x80"),
              "\xC2\xA0\xC3\x9B\xE2\x82\x9B\xF0\x9F\x9A\x80")
        << "letters with such bytes are letters";
    for (const char* cut : {"\xE2\x82", "\xF0\x9F\x9A", "\xC3"}) {
        const std::string text = shown(cut);
        EXPECT_EQ(text[0], cut[0]);
        EXPECT_EQ(text.size(), 1 + 4 * (std::string(cut).size() - 1)) << "a letter that is cut off is none";
    }
}

TEST(Filename, isInsertedAsOneTextOfTheWidthAskedFor) {
    std::ostringstream stream;
    stream << std::setw(6) << std::left << NwFilename("tile") << '|';
    EXPECT_EQ(stream.str(), "tile  |");
}

// --- sizes ----------------------------------------------------------------------------------------------

TEST(FileSize, isThatOfARegularFile) {
    const Directory dir;
    EXPECT_EQ(NwFilename(dir.write("empty", "")).fileSize(), 0);
    EXPECT_EQ(NwFilename(dir.write("one", "x")).fileSize(), 1);
    EXPECT_EQ(NwFilename(dir.write("more", std::string(70000, 'x'))).fileSize(), 70000);
}

TEST(FileSize, mayExceedWhatAnIntHolds) {
    const Directory dir;
    const std::string path = dir.write("huge", "");
    const long long size = 5LL << 30;
    ASSERT_EQ(::truncate(path.c_str(), size), 0) << "a file of one hole";
    EXPECT_EQ(NwFilename(path).fileSize(), size);
}

TEST(FileSize, followsLinks) {
    const Directory dir;
    const std::string path = dir.write("file", "12345");
    ASSERT_EQ(::symlink(path.c_str(), (dir / "link").c_str()), 0);
    ASSERT_EQ(::symlink("link", (dir / "second").c_str()), 0);
    EXPECT_EQ(NwFilename(dir / "link").fileSize(), 5);
    EXPECT_EQ(NwFilename(dir / "second").fileSize(), 5);
}

TEST(FileSize, ofWhatIsNoRegularFileIsMinusOne) {
    const Directory dir;
    ASSERT_EQ(::symlink("nowhere", (dir / "dangling").c_str()), 0);
    ASSERT_EQ(::symlink("loop", (dir / "loop").c_str()), 0);
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    const std::string file = dir.write("file", "x");
    for (const std::string& name : {std::string(), dir / "missing", dir / "", dir / "dangling", dir / "loop",
                                    dir / "fifo", file + "/", file + "/below", std::string("/dev/null")})
        EXPECT_EQ(NwFilename(name).fileSize(), -1) << name;
}

// --- making directories ---------------------------------------------------------------------------------

TEST(MakeDirectory, makesOne) {
    const Directory dir;
    EXPECT_TRUE(NwMakeDirectory(dir / "inbox"));
    EXPECT_TRUE(isDirectory(dir / "inbox"));
}

TEST(MakeDirectory, makesThoseAboveToo) {
    const Directory dir;
    EXPECT_TRUE(NwMakeDirectory(dir / "a/b//c/./d/"));
    EXPECT_TRUE(isDirectory(dir / "a/b/c/d"));
}

TEST(MakeDirectory, takesRelativeNames) {
    const Directory dir;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir / "");
    EXPECT_TRUE(NwMakeDirectory("one/two"));
    EXPECT_TRUE(NwMakeDirectory("."));
    std::filesystem::current_path(before);
    EXPECT_TRUE(isDirectory(dir / "one/two"));
}

TEST(MakeDirectory, leavesAnExistingOneAlone) {
    const Directory dir;
    ASSERT_TRUE(NwMakeDirectory(dir / "inbox"));
    ASSERT_EQ(::chmod((dir / "inbox").c_str(), 0711), 0);
    dir.write("inbox/file", "kept");
    EXPECT_TRUE(NwMakeDirectory(dir / "inbox"));
    EXPECT_TRUE(NwMakeDirectory(dir / "inbox/"));
    struct stat status;
    ASSERT_EQ(::stat((dir / "inbox").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0711u);
    EXPECT_EQ(NwFilename(dir / "inbox/file").fileSize(), 4);
    EXPECT_TRUE(NwMakeDirectory("/"));
}

TEST(MakeDirectory, takesALinkToADirectoryForOne) {
    const Directory dir;
    ASSERT_TRUE(NwMakeDirectory(dir / "real"));
    ASSERT_EQ(::symlink("real", (dir / "link").c_str()), 0);
    EXPECT_TRUE(NwMakeDirectory(dir / "link"));
    EXPECT_TRUE(NwMakeDirectory(dir / "link/below"));
    EXPECT_TRUE(isDirectory(dir / "real/below"));
}

TEST(MakeDirectory, obeysTheUmask) {
    const Directory dir;
    const mode_t before = ::umask(027);
    EXPECT_TRUE(NwMakeDirectory(dir / "a/b"));
    ::umask(before);
    for (const char* name : {"a", "a/b"}) {
        struct stat status;
        ASSERT_EQ(::stat((dir / name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0750u) << name;
    }
}

TEST(MakeDirectory, failsWhereAFileIsInTheWay) {
    const Directory dir;
    const std::string file = dir.write("file", "kept");
    for (const std::string& name : {file, file + "/", file + "/below", file + "/below/that"}) {
        errno = 0;
        EXPECT_FALSE(NwMakeDirectory(name)) << name;
        EXPECT_EQ(errno, ENOTDIR) << name;
    }
    EXPECT_EQ(NwFilename(file).fileSize(), 4);
}

TEST(MakeDirectory, failsForNoNameAndForADanglingLink) {
    const Directory dir;
    ASSERT_EQ(::symlink("nowhere", (dir / "dangling").c_str()), 0);
    for (const std::string& name : {std::string(), dir / "dangling"}) {
        errno = 0;
        EXPECT_FALSE(NwMakeDirectory(name)) << name;
        EXPECT_EQ(errno, ENOENT) << name;
    }
    EXPECT_FALSE(NwMakeDirectory(dir / std::string(300, 'x')));
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(MakeDirectory, failsWithoutPermission) {
    const Directory dir;
    ASSERT_TRUE(NwMakeDirectory(dir / "closed/inside"));
    ASSERT_EQ(::chmod((dir / "").c_str(), 0755), 0);
    ASSERT_EQ(::chmod((dir / "closed").c_str(), 0555), 0);
    asNobody([&] {
        errno = 0;
        EXPECT_FALSE(NwMakeDirectory(dir / "closed/new"));
        EXPECT_EQ(errno, EACCES);
        EXPECT_FALSE(NwMakeDirectory(dir / "closed/new/below"));
        EXPECT_TRUE(NwMakeDirectory(dir / "closed/inside")) << "what is there needs no permission";
    });
    EXPECT_FALSE(isDirectory(dir / "closed/new"));
    ::chmod((dir / "closed").c_str(), 0755);
}

}  // namespace
