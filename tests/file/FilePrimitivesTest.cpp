#include "file/FilePrimitives.h"

#include "TempDir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testutil::TempDir;

// --- Paths ------------------------------------------------------------------

TEST(PathRoutines, SepPathSplitsAtLastSeparatorOfAnyKind) {
  char dir[64], name[64];
  sep_path("C:\\dir\\file.txt", dir, name);
  EXPECT_STREQ("C:\\dir\\", dir);
  EXPECT_STREQ("file.txt", name);
  sep_path("file.txt", dir, name);
  EXPECT_STREQ("", dir);
  EXPECT_STREQ("file.txt", name);
  sep_path("a/b\\c:d", dir, name);  // mixed: ':' is the last one
  EXPECT_STREQ("a/b\\c:", dir);
  EXPECT_STREQ("d", name);
  sep_path("C:/x\\y/", dir, name);
  EXPECT_STREQ("C:/x\\y/", dir);
  EXPECT_STREQ("", name);
  sep_path("D:name", nullptr, name);
  EXPECT_STREQ("name", name);

  // dir may be the path itself; name may overlay it too.
  char inplace[64] = "/usr/lib/libx.so";
  sep_path(inplace, inplace, name);
  EXPECT_STREQ("/usr/lib/", inplace);
  EXPECT_STREQ("libx.so", name);
  char over[64] = "x\\y\\z.dat";
  sep_path(over, dir, over);
  EXPECT_STREQ("x\\y\\", dir);
  EXPECT_STREQ("z.dat", over);
}

TEST(PathRoutines, SepExtensaoTakesLastDotAfterFirstCharacter) {
  char base[64], ext[8];
  char p1[] = "archive.tar.gz";
  sep_extensao(p1, base, ext);
  EXPECT_STREQ("archive.tar", base);
  EXPECT_STREQ(".gz", ext);
  char p2[] = ".profile";
  sep_extensao(p2, base, ext);
  EXPECT_STREQ("", ext);
  EXPECT_STREQ(".profile", base);
  char p3[] = "name.jpeg";
  sep_extensao(p3, base, ext);
  EXPECT_STREQ("name", base);
  EXPECT_STREQ(".jpe", ext);
  char p4[] = "C:\\dir.d\\noext";
  sep_extensao(p4, base, ext);
  EXPECT_STREQ("C:\\dir", base);  // the last dot anywhere in the text
  EXPECT_STREQ(".d\\n", ext);
  char p5[] = "";
  std::strcpy(base, "junk");
  std::strcpy(ext, "junk");
  sep_extensao(p5, base, ext);
  EXPECT_STREQ("", base);
  EXPECT_STREQ("", ext);
  sep_extensao(nullptr, base, ext);
  EXPECT_STREQ("", base);
  EXPECT_STREQ("", ext);
  char p6[] = "report.doc";
  sep_extensao(p6, p6, ext);  // base may be the path
  EXPECT_STREQ("report", p6);
  EXPECT_STREQ(".doc", ext);
}

TEST(PathRoutines, SepReduzGivesShortNameInFixedField) {
  char out[21];
  std::memset(out, 'x', sizeof out);
  sep_reduz("C:\\x\\report final.doc", out, 20);
  EXPECT_STREQ("report", out);
  for (char c : std::string(out + 6, out + 21))
    EXPECT_EQ('\0', c);
  sep_reduz("/a/b:longfilename.txt", out, 4);
  EXPECT_STREQ("long", out);
  EXPECT_EQ('\0', out[4]);
  sep_reduz("", out, 20);
  EXPECT_STREQ("", out);
  sep_reduz("dir/", out, 20);
  EXPECT_STREQ("", out);
}

TEST(PathRoutines, ChangeFilenameAndDirSuffix) {
  char out[64];
  EXPECT_STREQ("C:\\dir\\new.txt", change_filename("C:\\dir\\old.txt   ", out, "new.txt"));
  EXPECT_STREQ("a/b:new", change_filename("a/b:old", out, "new"));
  EXPECT_STREQ("new", change_filename("old", out, "new"));
  char same[64] = "/var/log/x.log  ";
  EXPECT_STREQ("/var/log/y.log", change_filename(same, same, "y.log"));

  EXPECT_EQ(2, add_dirsufix("C:", out));
  EXPECT_STREQ("C:", out);
  EXPECT_EQ(5, add_dirsufix("/tmp", out));
  EXPECT_STREQ("/tmp/", out);
  EXPECT_EQ(4, add_dirsufix("a\\b\\", out));
  EXPECT_STREQ("a\\b\\", out);
  EXPECT_EQ(0, add_dirsufix("", out));
  EXPECT_STREQ("", out);
  EXPECT_EQ(2, add_dirsufix("  ", out));  // blank: copied, nothing added
  char inplace[16] = "dir";
  EXPECT_EQ(4, add_dirsufix(inplace, inplace));
  EXPECT_STREQ("dir/", inplace);
}

// --- Descriptor tiers -------------------------------------------------------

TEST(FileTier, BadDescriptorsFailWithoutCrashing) {
  char buf[8] = {};
  // -1, and a number no descriptor of this process has.
  for (int fd : {-1, 1 << 20}) {
    SCOPED_TRACE(fd);
    EXPECT_EQ(-1, close_x(fd));
    EXPECT_EQ(-1, close_ap(fd, nullptr));
    EXPECT_EQ(-1, read_x(fd, buf, sizeof buf));
    EXPECT_EQ(-1, write_x(fd, buf, sizeof buf));
    EXPECT_EQ(-1, hread_x(fd, buf, 8));
    EXPECT_EQ(-1, hwrite_ap(fd, buf, 8));
    EXPECT_EQ(-1, write_ap(fd, buf, sizeof buf));
    EXPECT_EQ(-1, seek_x(nullptr, fd, 0, SEEK_SET));
    EXPECT_EQ(-1, seek_ap(nullptr, fd, 10, SEEK_CUR));
    EXPECT_EQ(-1, tell_x(nullptr, fd));
    EXPECT_EQ(-1, tell_ap(nullptr, fd));
    EXPECT_EQ(0, lock_x(fd, 0, 0, 1, 0));
    EXPECT_EQ(0, lock_ap(fd, 0, 0, 1, 0));
    EXPECT_EQ(0, unlock_x(fd, 0, 0, 1, 0));
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, read_ap(fd, buf, sizeof buf));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0u, err.find("erro na leirura do arquivo")) << err;
  }
  EXPECT_EQ(-1, open_x(nullptr, nullptr, O_RDONLY, 0));
  EXPECT_EQ(-1, mkdir_x(nullptr));
  EXPECT_EQ(-1, rmdir_x(nullptr));
  EXPECT_EQ(-1, chdir_x(nullptr));
  EXPECT_EQ(nullptr, getcwd_x(nullptr, 100));
  EXPECT_EQ(nullptr, getcwd_x(buf, 0));
}

TEST(FileTier, ReadWriteSeekAndDefaultMode) {
  TempDir tmp;
  std::string path = tmp / "data.bin";
  int state = 0;
  int fd = open_ap(path.c_str(), &state, O_RDWR | O_CREAT | O_EXCL, 0);
  ASSERT_GE(fd, 0);
  struct stat st {};
  ASSERT_EQ(0, ::fstat(fd, &st));
  EXPECT_EQ(0600u, st.st_mode & 0777u);
  EXPECT_EQ(0, state);  // the work area is the caller's, untouched
  EXPECT_EQ(-1, open_x(path.c_str(), nullptr, O_RDWR | O_CREAT | O_EXCL, 0));  // flags passed through

  EXPECT_EQ(6, write_ap(fd, "abcdef", 6));
  EXPECT_EQ(6, tell_ap(nullptr, fd));
  EXPECT_EQ(2, seek_ap(nullptr, fd, 2, SEEK_SET));
  char buf[8] = {};
  EXPECT_EQ(3, read_ap(fd, buf, 3));
  EXPECT_STREQ("cde", buf);
  EXPECT_EQ(1L, hread_ap(fd, buf, 8));
  EXPECT_EQ(0L, hread_ap(fd, buf, 8));  // end of file is not a failure
  EXPECT_EQ(-1L, hread_x(fd, buf, -1));

  // Offsets beyond 32 bits: the file becomes sparse, 5 GiB + 1 byte long.
  const __int64 far = 5LL << 30;
  ASSERT_EQ(far, seek_x(nullptr, fd, far, SEEK_SET));
  ASSERT_EQ(1, write_x(fd, "z", 1));
  EXPECT_EQ(far + 1, tell_x(nullptr, fd));
  EXPECT_EQ(0, close_ap(fd, nullptr));
  EXPECT_EQ(far + 1, GetFileLength64(path.c_str()));
  EXPECT_EQ(static_cast<unsigned>((far + 1) & 0xFFFFFFFF), GetFileLength(path.c_str()));
}

TEST(FileTier, LockRangeConflictsAcrossOpens) {
  TempDir tmp;
  std::string path = tmp.Write("lock.bin", "0123456789");
  int a = open_x(path.c_str(), nullptr, O_RDWR, 0);
  int b = open_x(path.c_str(), nullptr, O_RDWR, 0);
  int ro = open_x(path.c_str(), nullptr, O_RDONLY, 0);
  ASSERT_GE(a, 0);
  ASSERT_GE(b, 0);
  ASSERT_GE(ro, 0);
  EXPECT_EQ(1, lock_ap(a, 2, 0, 4, 0));      // bytes 2..5
  EXPECT_EQ(0, lock_ap(b, 5, 0, 1, 0));      // overlaps byte 5
  EXPECT_EQ(1, lock_ap(b, 6, 0, 4, 0));      // 6..9 is free
  EXPECT_EQ(1, lock_x(a, 0, 1, 1, 0));       // offsets past 4 GiB
  EXPECT_EQ(0, lock_x(b, 0, 1, 1, 0));
  EXPECT_EQ(0, lock_x(a, 20, 0, 0, 0));      // nothing to lock
  EXPECT_EQ(0, lock_x(ro, 100, 0, 1, 0));    // exclusive needs write access
  EXPECT_EQ(1, unlock_ap(a, 2, 0, 4, 0));
  EXPECT_EQ(1, lock_x(b, 2, 0, 4, 0));
  close_x(b);  // closing releases b's locks
  EXPECT_EQ(1, lock_x(a, 6, 0, 4, 0));
  close_x(a);
  close_x(ro);
}

// --- Files and directories --------------------------------------------------

TEST(FilesAndDirs, ExistenceAndSizeTests) {
  TempDir tmp;
  std::string file = tmp.Write("f.txt", "hello");
  std::string missing = tmp / "missing";
  char before[PATH_MAX], after[PATH_MAX];
  ASSERT_NE(nullptr, getcwd_x(before, sizeof before));

  EXPECT_EQ(1, FileExist(file.c_str()));
  EXPECT_EQ(0, FileExist(missing.c_str()));
  EXPECT_EQ(0, FileExist(tmp.path().c_str()));  // a directory is not a file
  EXPECT_EQ(0, FileExist("   "));
  EXPECT_EQ(0, FileExist(nullptr));
  EXPECT_EQ(5u, GetFileLength(file.c_str()));
  EXPECT_EQ(0u, GetFileLength(missing.c_str()));
  EXPECT_EQ(0u, GetFileLength(""));
  EXPECT_EQ(-1, GetFileLength64(missing.c_str()));

  std::string fifo = tmp / "fifo";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  EXPECT_EQ(1, FileExist(fifo.c_str()));  // must not wait for a writer

  EXPECT_EQ(1, DirectoryExist(tmp.path().c_str()));
  EXPECT_EQ(1, ExisteDir((tmp.path() + "/").c_str()));
  EXPECT_EQ(0, DirectoryExist(file.c_str()));
  EXPECT_EQ(0, DirectoryExist(missing.c_str()));
  EXPECT_EQ(0, DirectoryExist(" "));
  ASSERT_NE(nullptr, getcwd_x(after, sizeof after));
  EXPECT_STREQ(before, after);

  char tiny[2];
  EXPECT_EQ(nullptr, getcwd_x(tiny, sizeof tiny));

  if (::geteuid() != 0) {  // permissions do not hold back root
    ::chmod(file.c_str(), 0);
    EXPECT_EQ(0, FileExist(file.c_str()));
    EXPECT_EQ(0u, GetFileLength(file.c_str()));
  }
}

TEST(FilesAndDirs, RenameNeverReplaces) {
  TempDir tmp;
  std::string a = tmp.Write("a", "A");
  std::string b = tmp / "b";
  std::string c = tmp.Write("c", "C");
  EXPECT_EQ(0, RenameFile("", b.c_str()));
  EXPECT_EQ(0, RenameFile(a.c_str(), "  "));
  EXPECT_EQ(1, RenameFile(a.c_str(), b.c_str()));
  EXPECT_EQ(0, FileExist(a.c_str()));
  EXPECT_EQ("A", testutil::ReadAll(b));
  EXPECT_EQ(0, RenameFile(c.c_str(), b.c_str()));  // b exists: left alone
  EXPECT_EQ("A", testutil::ReadAll(b));
  EXPECT_EQ("C", testutil::ReadAll(c));
  EXPECT_EQ(0, RenameFile(a.c_str(), (tmp / "d").c_str()));  // a is gone
}

TEST(FilesAndDirs, CreateDirectoriesAndCheckBeforehand) {
  TempDir tmp;
  std::string deep = tmp / "x/y//z/";
  std::string file = tmp.Write("plain", "p");

  EXPECT_EQ(1, PodeCriarDir(deep.c_str()));
  EXPECT_EQ(0, DirectoryExist((tmp / "x").c_str()));  // the check made nothing
  EXPECT_EQ(1, PodeCriarDir(tmp.path().c_str()));
  EXPECT_EQ(0, PodeCriarDir((tmp / "plain/sub").c_str()));
  EXPECT_EQ(0, PodeCriarDir(file.c_str()));
  EXPECT_EQ(0, PodeCriarDir(""));

  EXPECT_EQ(1, CriaDir(deep.c_str()));
  EXPECT_EQ(1, DirectoryExist((tmp / "x/y/z").c_str()));
  EXPECT_EQ(1, CriaDir(deep.c_str()));  // already there
  EXPECT_EQ(0, CriaDir((tmp / "plain/sub").c_str()));
  EXPECT_EQ(0, CriaDir(file.c_str()));
  EXPECT_EQ(0, CriaDir(" "));

  // A long path (beyond the fixed 260-byte fields) works as well.
  std::string longPath = tmp.path();
  while (longPath.size() < 400)
    longPath += "/abcdefghijklmnop";
  EXPECT_EQ(1, PodeCriarDir(longPath.c_str()));
  EXPECT_EQ(1, CriaDir(longPath.c_str()));
  EXPECT_EQ(1, ExisteDir(longPath.c_str()));

  EXPECT_EQ(0, rmdir_x((tmp / "x/y/z").c_str()));
  EXPECT_EQ(-1, rmdir_x((tmp / "x/y/z").c_str()));
  EXPECT_EQ(0, mkdir_x((tmp / "x/y/z").c_str()));
  EXPECT_EQ(-1, mkdir_x((tmp / "x/y/z").c_str()));
}

}  // namespace
