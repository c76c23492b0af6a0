// Multi-process stress and fault tests, each with a measurable pass
// criterion; RELIABILITY.md records them and their results, and every line
// starting with "RESULT" is a measurement for that record.
#include "support/locks.h"

namespace trv::test {
namespace {

using enum Work;

TEST_P(Region, Shared) { run(); }
const Scenario kLarge[] = {
    {"CounterUnderTheLockIsExact", 32, 5000, kIncrement},
    {"MixedRequestsWithResetsAnswerRight", 16, 2000, kRequests},
    {"HolderKilledAfterTakingTheLock", 16, 1, kRequests, 2, take, nullptr, SIGKILL},
    {"HolderKilledDuringAReset", 4, 1, kRequests, 2, reset, "Load DB: ", SIGKILL},
    {"HolderKilledDuringACacheUpdate", 4, 1, kRequests, 2, update_the_cache, "LRU Insert: ", SIGKILL},
    {"HolderKilledDuringQDMNewFile", 4, 1, kRequests, 2, enter_a_file, "QDMNewFile: Clearing", SIGKILL},
    {"HolderKilledJustBeforeGiving", 4, 1, kRequests, 2, request_inside, nullptr, SIGKILL},
    {"StoppedHolderIsNeverTakenOver", 4, 1, kRequests, 2, take, nullptr, 0, SIGSTOP, 3000, 1000},
    {"DeathBetweenTakeAndRecordIsBounded", 8, 1, kRequests, 2, take_unrecorded, nullptr, -1, 0, 300, 1000, "", true},
    {"DownloadLockHolderKilledDuringAMakeRun", 4, 1, kMakeRun, 0, take_download, nullptr, SIGKILL},
    {"ReadersSurviveRandomWordsInTheArena", 0, 0, kIncrement, 3, nullptr, nullptr, 0, 0, 0, 0, "", false, true},
};
INSTANTIATE_TEST_SUITE_P(Scenarios, Region, ::testing::ValuesIn(kLarge), ::testing::PrintToStringParamName());

}  // namespace
}  // namespace trv::test
