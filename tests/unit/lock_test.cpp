// The named re-entrant lock and its companion, taking it over from a holder
// that died, and what the checks and readers of the region make of damage.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>

#include "platform/holder.h"
#include "support/locks.h"

namespace trv::test {
namespace {

using enum Work;

// With its companion made afresh, or one planted that is not safely ours
// (refused, said once per process; the lock is then a plain semaphore):
// nested takes and gives touch the semaphore once; a give without a take,
// and anything done to no lock or a closed one, changes nothing; a child
// forked meanwhile holds nothing, so neither its give nor its close posts;
// a close gives. Each step below gives its result and the semaphore's value.
TEST(Lock, TakesGivesForkAndClose) {
  const std::string name = "/trovalis-locktest-" + std::to_string(getpid());
  char object[256];
  platform::holder_object_name(name.c_str(), object, sizeof object);
  for (const auto &[mode, size, magic, why] :
       {std::tuple(0, 0, 0u, ""), {0644, 64, kHolderMagic, "is open to other users"},
        {0600, 8, kHolderMagic, "is too short"}, {0600, 64, 1u, "has a layout this build does not know"}}) {
    const int fd = mode ? shm_open(object, O_RDWR | O_CREAT | O_EXCL, 0600) : -1;
    EXPECT_EQ(mode ? fchmod(fd, mode) + ftruncate(fd, size) + pwrite(fd, &magic, 4, 0) + close(fd) : 4, 4);
    Forked process([&](Forked &me) {
      testing::internal::CaptureStderr();
      QDMLock *lock = CreateMutex(nullptr, 0, name.c_str());
      sem_t *sem = sem_open(name.c_str(), 0);
      std::string did = lock->holder || CreateMutex(nullptr, 0, name.c_str())->holder ? "recorded" : "plain";
      const auto step = [&](int result) {  // the result and the semaphore's value: 1 free, 0 taken
        did += " " + std::to_string(result) + std::to_string(sem_value(sem));
      };
      step(WaitForSingleObject(nullptr, -1) + ReleaseMutex(nullptr) + mtx_close(nullptr));
      step(ReleaseMutex(lock));
      step(WaitForSingleObject(lock, -1));
      step(WaitForSingleObject(lock, -1));
      Forked child([&](Forked &c) {  // says its give and its count, ends with its close
        return c.say(std::to_string(ReleaseMutex(lock) + 2 * lock->count)), mtx_close(lock);
      });
      step(std::stoi(child.read_line()) + 2 * child.kill_and_wait(0));
      step(ReleaseMutex(lock));
      step(ReleaseMutex(lock));
      step(WaitForSingleObject(lock, -1) + WaitForSingleObject(lock, -1));
      step(mtx_close(lock));
      step(WaitForSingleObject(lock, -1) + ReleaseMutex(lock));
      did += "|" + testing::internal::GetCapturedStderr();
      std::replace(did.begin(), did.end(), '\n', '|');
      return me.say(did), 0;
    });
    EXPECT_EQ(process.read_line(),
              std::string(mode ? "plain" : "recorded") + " 01 11 00 10 10 10 01 10 01 01|" +
                  (mode ? "ERROR: " + std::string(TDSError) + "|ERROR: Holder record of lock `" + name + "' " + why +
                              "; a holder that dies will not be noticed|"
                        : "") +
                  "NESTED: sem_wait(1)|NESTED: sem_post(2)|NESTED: sem_wait(1)|"
                  "UNLOCKING MUTEX BEFORE CLOSING: sem_close(2)|");
    EXPECT_EQ(sem_unlink(name.c_str()) + platform::holder_remove(name.c_str()), 0);
  }
}

// Small: a few processes, holders that die (or not) in every way, the orphan
// deadline cut to 300 ms where it matters; and one program alone taking over
// in its attach, before it has even mapped its region.
TEST_P(Region, Shared) { run(); }
const Scenario kSmall[] = {
    {"Requests", 4, 100, kRequests},
    {"HolderKilledTakenOverInAProgramsAttach", 0, 1, kRequests, 1, take, nullptr, SIGKILL},
    {"HolderLeavesACircle", 3, 1, kRequests, 0, leave_a_circle, nullptr, 0, 0, 300, 0,
     "ERROR: Shared memory was damaged, rebuilding it: "},
    {"HolderKilledLeavingAChildAlive", 3, 1, kRequests, 0, take_leaving_a_child, nullptr, SIGKILL},
    {"HolderKilledDuringAReset", 3, 1, kRequests, 1, reset, "Load DB: ", SIGKILL},
    {"HolderKilledInAPost", 1, 1, kRequests, 0, cut_a_post_short, nullptr, SIGKILL, 0, 300, 0,
     "WARNING: message queue: 1 slot references repaired"},
    {"HolderStoppedIsNeverTakenOver", 3, 1, kRequests, 0, take, nullptr, 0, SIGSTOP, 700, 300},
    {"HolderDeadBeforeItsRecord", 3, 1, kRequests, 0, take_unrecorded, nullptr, -1, 0, 250, 300, "", true},
    {"HolderSlowGivingIsWaitedFor", 3, 1, kRequests, 0, give_halfway, nullptr, 0, 0, 700, 300},
    {"HolderKilledGiving", 3, 1, kRequests, 0, give_halfway, nullptr, SIGKILL, 0, 300, 300, "", true},
    {"DownloadLockHolderKilled", 3, 1, kMakeRun, 0, take_download, nullptr, SIGKILL},
};
INSTANTIATE_TEST_SUITE_P(Small, Region, ::testing::ValuesIn(kSmall), ::testing::PrintToStringParamName());

// Where a header word, and a word of the data area, lie in the region.
int32_t head(Word w) { return 4 * static_cast<int32_t>(w); }
int32_t data(int32_t off) { return kHeaderBytes + off; }

// Damage word by word: the header check finds what lies in the header and
// the slot table (all it reads at attach), the full walk also what lies
// behind them. Each fault is classed: rebuilt by a reset, or laid out anew
// when creation's part is hit.
TEST_F(Region, DamageIsFoundAndClassified) {
  using enum Word;
  CacheGuard g;
  const int32_t e0 = loadi(at(loadi(FormatPath("prog", "tfm")), 4)), e1 = entry_next(e0);
  const int32_t used = hdr(Mem_Used), mark = hdr(Mem_Mark), max = hdr(Mem_Max), low = hdr(Pool_Low);
  const int32_t table = hdr(Msg_Table), slot1 = loadi(at(table + 4, 4)), e0next = data(e0 + EntryLayout::kNext);
  constexpr Fault N = Fault::None, R = Fault::Rebuild, C = Fault::Recreate;
  const struct {
    int32_t place, value;
    Fault header, region;
  } rows[] = {
      {head(Mem_Max), -1, C, C}, {head(Mem_Max), 0x7FFFFFFF, C, C}, {head(Mem_Mark), 0, C, C},
      {head(Mem_Mark), mark + 1, C, C}, {head(Pool_Low), max, C, C}, {head(Msg_Max), 2000, C, C},
      {head(Msg_Len), 1000, C, C}, {head(Msg_Table), table + 1, C, C}, {head(Frame_Table), mark, C, C},
      {head(Image_Size), 1 << 30, C, C}, {head(Msg_Count), -1, C, C}, {head(Msg_Count), kMsgMax + 1, C, C},
      {head(Common_INI), table, C, C}, {head(Local_INI), 0, C, C}, {head(Env_String), -7, C, C},
      {data(table), 0, C, C}, {data(table), slot1 + 1, C, C}, {data(table), slot1, C, C},  // no slot, one twice
      {data(max - 4), 0x78787878, N, C},  // the resource pool without its empty text at the end
      {head(Mem_Used), mark - 1, R, R}, {head(Mem_Used), low, R, R}, {head(Root_LRU), used, R, R},
      {head(Common_Hash), -4, R, R}, {head(Alias_Hash), used - 3, R, R}, {head(Moderation), 2, R, R},
      {data(e1 + EntryLayout::kNext), e0, N, R}, {e0next, e0, N, R}, {e0next, used + 100, N, R},  // circles, ...
      {e0next, 0x7FFFFFF0, N, R}, {e0next, -20, N, R}, {data(e0 + EntryLayout::kValue), 0x7FFFFFF0, N, R},
  };
  for (const auto &c : rows) {
    char *word = g_map.base + c.place;
    const int32_t old = loadi(word);
    storei(word, c.value);
    EXPECT_EQ(std::pair(check_header().fault, check_region().fault), std::pair(c.header, c.region))
        << "word at " << c.place << " = " << c.value;
    storei(word, old);
  }
  std::memset(at(e0 + EntryLayout::kKey, 1), 'k', static_cast<size_t>(used - e0 - EntryLayout::kKey));
  EXPECT_EQ(check_region().fault, R) << "a key that runs to the end of the arena";
}

}  // namespace
}  // namespace trv::test
