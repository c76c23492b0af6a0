// Shared objects that are not this user's own making, planted before the
// program starts: a region of another user, of the wrong size or of another
// layout version, and (on Linux) a lock semaphore of another user. None is
// mapped or written; the program works on a private region, or (another
// layout version) refuses to start as the version rule says.
#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/sandbox.h"

namespace trv {
namespace {

using ::testing::HasSubstr;

constexpr uid_t kOtherUid = 54321;

// The bytes of a shared-memory object, to tell that nothing wrote to it.
std::string object_bytes(const std::string &name) {
  const int fd = shm_open(name.c_str(), O_RDONLY, 0);
  if (fd < 0) return "(absent)";
  struct stat st {};
  fstat(fd, &st);
  std::string bytes(static_cast<size_t>(st.st_size), '\0');
  if (st.st_size > 0 && pread(fd, bytes.data(), bytes.size(), 0) != st.st_size) bytes = "(unreadable)";
  close(fd);
  return bytes;
}

// A region object of `size` bytes: the header says version `version` and
// every other byte is 0xA5, so that no layout would take it for its own.
void plant_region(const test::Sandbox &box, off_t size, int32_t version, uid_t owner) {
  const int fd = shm_open(box.region_name().c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, size), 0);
  std::string bytes(static_cast<size_t>(size), '\xa5');
  std::memcpy(bytes.data(), &version, 4);
  ASSERT_EQ(pwrite(fd, bytes.data(), bytes.size(), 0), size);
  if (owner != getuid()) {
    ASSERT_EQ(fchown(fd, owner, owner), 0);
  }
  close(fd);
}

bool can_chown() { return geteuid() == 0; }

struct Outcome {
  int status;
  std::string err;      // expected in stderr
  bool works;           // the host posted and read back a message
};

void run_host(const test::Sandbox &box, const Outcome &want) {
  const std::string before = object_bytes(box.region_name());
  const test::RunResult r =
      test::run({box.install_host(), "post", "x", "1", "messages", "1", "info"}, box.env());
  EXPECT_EQ(r.status, want.status) << r.err;
  EXPECT_THAT(r.err, HasSubstr(want.err));
  if (want.works) {
    EXPECT_THAT(r.out, HasSubstr("hostx\n"));
    EXPECT_THAT(r.out, HasSubstr("init=1"));  // a region of its own
  }
  EXPECT_EQ(object_bytes(box.region_name()), before) << "the planted object was written";
}

TEST(ForeignObjects, RegionOfAnotherUser) {
  if (!can_chown()) GTEST_SKIP() << "planting an object of another user needs root";
  test::Sandbox box;
  plant_region(box, 8000000, 9, kOtherUid);
  run_host(box, {0, "is owned by another user; using a private region", true});
}

TEST(ForeignObjects, RegionOfTheWrongSize) {
  for (const off_t size : {off_t{128}, off_t{4096}, off_t{7999999}}) {
    SCOPED_TRACE(size);
    test::Sandbox box;
    plant_region(box, size, 9, getuid());
    run_host(box, {0, "is smaller than the mapped length; using a private region", true});
  }
}

TEST(ForeignObjects, RegionOfAnotherLayoutVersion) {
  for (const int32_t version : {8, 10, -1, 0x7FFFFFFF}) {
    SCOPED_TRACE(version);
    test::Sandbox box;
    plant_region(box, 8000000, version, getuid());
    run_host(box, {1, "ERROR: Zelvan Trovalis Error\n"
                      "ERROR: There is already running incompatible version of QDM\n", false});
  }
}

#ifdef __linux__
TEST(ForeignObjects, LockOfAnotherUser) {
  if (!can_chown()) GTEST_SKIP() << "planting a semaphore of another user needs root";
  test::Sandbox box;
  sem_t *sem = sem_open(box.lock_name().c_str(), O_CREAT, 0666, 0);  // held by nobody, never free
  ASSERT_NE(sem, SEM_FAILED);
  sem_close(sem);
  const std::string file = "/dev/shm/sem." + box.lock_name().substr(1);
  ASSERT_EQ(chown(file.c_str(), kOtherUid, kOtherUid), 0);
  run_host(box, {0, "Semaphore `" + box.lock_name() + "' is", true});
  // Neither the semaphore nor a region was touched.
  sem = sem_open(box.lock_name().c_str(), 0);
  ASSERT_NE(sem, SEM_FAILED);
  int value = -1;
  sem_getvalue(sem, &value);
  sem_close(sem);
  EXPECT_EQ(value, 0);
  EXPECT_EQ(object_bytes(box.region_name()), "(absent)");
}
#endif

}  // namespace
}  // namespace trv
