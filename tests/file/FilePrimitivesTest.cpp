#include "file/FilePrimitives.h"

#include "TempDir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testutil::TempDir;

TEST(PathRoutines, SplitWithEverySeparator) {
  char dir[64], name[64];
  struct Split { char const *path, *dir, *name; };
  for (Split s : {Split{"C:\\dir\\file.txt", "C:\\dir\\", "file.txt"}, Split{"file.txt", "", "file.txt"},
                  Split{"a/b\\c:d", "a/b\\c:", "d"}, Split{"C:/x\\y/", "C:/x\\y/", ""}}) {
    sep_path(s.path, dir, name);
    EXPECT_STREQ(s.dir, dir);
    EXPECT_STREQ(s.name, name);
  }
  char inplace[64] = "/usr/lib/libx.so";  // dir may be the path itself
  sep_path(inplace, inplace, name);
  EXPECT_STREQ("/usr/lib/", inplace);
  EXPECT_STREQ("libx.so", name);

  char base[64], ext[8];
  struct Ext { char const *path, *base, *ext; };
  for (Ext e : {Ext{"archive.tar.gz", "archive.tar", ".gz"}, Ext{".profile", ".profile", ""},
                Ext{"name.jpeg", "name", ".jpe"}, Ext{"C:\\d.d\\noext", "C:\\d", ".d\\n"}, Ext{"", "", ""}}) {
    std::string p = e.path;
    sep_extensao(p.data(), base, ext);
    EXPECT_STREQ(e.base, base) << e.path;
    EXPECT_STREQ(e.ext, ext) << e.path;
  }
  char doc[] = "report.doc";
  sep_extensao(doc, doc, ext);
  EXPECT_STREQ("report", doc);

  char out[21];
  std::memset(out, 'x', sizeof out);
  sep_reduz("C:\\x\\report final.doc", out, 20);
  EXPECT_STREQ("report", out);
  EXPECT_EQ(std::string(15, '\0'), std::string(out + 6, 15));

  EXPECT_STREQ("C:\\dir\\new.txt", change_filename("C:\\dir\\old.txt   ", out, "new.txt"));
  EXPECT_STREQ("a/b:n", change_filename("a/b:old", out, "n"));

  EXPECT_EQ(2, add_dirsufix("C:", out));
  EXPECT_STREQ("C:", out);
  EXPECT_EQ(5, add_dirsufix("/tmp", out));
  EXPECT_STREQ("/tmp/", out);
  EXPECT_EQ(2, add_dirsufix("  ", out));  // blank: nothing added
}

TEST(FileTier, BadDescriptorsFailWithoutCrashing) {
  char buf[8] = {};
  for (int fd : {-1, 1 << 20}) {  // none, and a number nothing has open
    EXPECT_EQ(-1, close_ap(fd, nullptr));
    EXPECT_EQ(-1, write_ap(fd, buf, sizeof buf));
    EXPECT_EQ(-1, hread_ap(fd, buf, 8));
    EXPECT_EQ(-1, seek_ap(nullptr, fd, 10, SEEK_SET));
    EXPECT_EQ(-1, tell_ap(nullptr, fd));
    EXPECT_EQ(0, lock_ap(fd, 0, 0, 1, 0));
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, read_ap(fd, buf, sizeof buf));
    EXPECT_EQ(0u, testing::internal::GetCapturedStderr().find("erro na leirura do arquivo"));
  }
  EXPECT_EQ(-1, open_x(nullptr, nullptr, O_RDONLY, 0));
  EXPECT_EQ(-1, chdir_x(nullptr));
  EXPECT_EQ(nullptr, getcwd_x(buf, 0));
  EXPECT_EQ(nullptr, getcwd_x(buf, 2));  // does not fit
}

TEST(FileTier, DefaultModeAndOffsetsBeyond32Bits) {
  TempDir tmp;
  std::string path = tmp / "data.bin";
  int fd = open_ap(path.c_str(), nullptr, O_RDWR | O_CREAT | O_EXCL, 0);
  ASSERT_GE(fd, 0);
  struct stat st {};
  ASSERT_EQ(0, ::fstat(fd, &st));
  EXPECT_EQ(0600u, st.st_mode & 0777u);
  EXPECT_EQ(-1, open_x(path.c_str(), nullptr, O_RDWR | O_CREAT | O_EXCL, 0));  // flags passed through

  EXPECT_EQ(6, write_ap(fd, "abcdef", 6));
  EXPECT_EQ(2, seek_ap(nullptr, fd, 2, SEEK_SET));
  char buf[8] = {};
  EXPECT_EQ(3, read_ap(fd, buf, 3));
  EXPECT_STREQ("cde", buf);

  const __int64 far = 5LL << 30;  // a sparse file of 5 GiB + 1 byte
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
  EXPECT_EQ(1, lock_ap(a, 2, 0, 4, 0));    // bytes 2..5
  EXPECT_EQ(0, lock_ap(b, 5, 0, 1, 0));    // overlaps byte 5
  EXPECT_EQ(1, lock_x(a, 0, 1, 1, 0));     // past 4 GiB
  EXPECT_EQ(0, lock_x(b, 0, 1, 1, 0));
  EXPECT_EQ(0, lock_x(a, 20, 0, 0, 0));    // zero length
  EXPECT_EQ(0, lock_x(ro, 100, 0, 1, 0));  // exclusive needs write access
  EXPECT_EQ(1, unlock_ap(a, 2, 0, 4, 0));
  EXPECT_EQ(1, lock_x(b, 2, 0, 4, 0));
  close_x(b);  // releases b's ranges
  EXPECT_EQ(1, lock_x(a, 2, 0, 4, 0));
  close_x(a);
  close_x(ro);
}

TEST(FilesAndDirs, ExistenceSizeAndRename) {
  TempDir tmp;
  std::string file = tmp.Write("f.txt", "hello");
  std::string fifo = tmp / "fifo";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));

  EXPECT_EQ(1, FileExist(file.c_str()));
  EXPECT_EQ(1, FileExist(fifo.c_str()));  // without waiting for a writer
  EXPECT_EQ(0, FileExist((tmp / "missing").c_str()));
  EXPECT_EQ(0, FileExist(tmp.path().c_str()));  // a directory is no file
  EXPECT_EQ(5u, GetFileLength(file.c_str()));
  EXPECT_EQ(0u, GetFileLength(tmp.path().c_str()));
  EXPECT_EQ(1, DirectoryExist(tmp.path().c_str()));
  EXPECT_EQ(1, ExisteDir((tmp.path() + "/").c_str()));
  EXPECT_EQ(0, DirectoryExist(file.c_str()));
  if (::geteuid() != 0) {  // permissions do not hold root back
    ::chmod(file.c_str(), 0);
    EXPECT_EQ(0, FileExist(file.c_str()));
    ::chmod(file.c_str(), 0600);
  }

  std::string moved = tmp / "moved";
  std::string other = tmp.Write("other", "C");
  EXPECT_EQ(0, RenameFile("", moved.c_str()));
  EXPECT_EQ(1, RenameFile(file.c_str(), moved.c_str()));
  EXPECT_EQ(0, FileExist(file.c_str()));
  EXPECT_EQ(0, RenameFile(other.c_str(), moved.c_str()));  // never replaces
  EXPECT_EQ(5u, GetFileLength(moved.c_str()));
  EXPECT_EQ(1, FileExist(other.c_str()));
}

TEST(FilesAndDirs, CreateDirectoriesAndCheckBeforehand) {
  TempDir tmp;
  std::string deep = tmp / "x/y//z/";
  std::string file = tmp.Write("plain", "p");
  EXPECT_EQ(1, PodeCriarDir(deep.c_str()));
  EXPECT_EQ(0, DirectoryExist((tmp / "x").c_str()));  // the check made nothing
  EXPECT_EQ(1, PodeCriarDir(tmp.path().c_str()));
  EXPECT_EQ(0, PodeCriarDir((tmp / "plain/sub").c_str()));

  EXPECT_EQ(1, CriaDir(deep.c_str()));
  EXPECT_EQ(1, DirectoryExist((tmp / "x/y/z").c_str()));
  EXPECT_EQ(1, CriaDir(deep.c_str()));
  EXPECT_EQ(0, CriaDir((tmp / "plain/sub").c_str()));

  std::string longPath = tmp.path();  // beyond the 260-byte path fields
  while (longPath.size() < 400)
    longPath += "/abcdefghijklmnop";
  EXPECT_EQ(1, CriaDir(longPath.c_str()));
  EXPECT_EQ(1, ExisteDir(longPath.c_str()));
  EXPECT_EQ(0, rmdir_x(longPath.c_str()));
}

}  // namespace
