// The shared region's core. Attaching, seen from a host that loads the
// library: the region a first program lays out and the next ones reuse, the
// knobs, and objects that must not be trusted (planted by another build or
// user, or on a /dev/shm too small). Then, in an attached process, what
// lives in the region: the arena, hash tables and lists, the message log,
// frames and pools, and what becomes of them when the arena is full.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "core/containers.h"
#include "core/region.h"
#include "core/validate.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

const std::string kNew = "Opened Memory is 'NEW', size=0\n", kReused = "Opened Memory is 'REUSED', size=";
const std::string kExhausted = "QDM-prog: ERROR: too few shared memmory, extend it.\n", kError = "ERROR: ";

// What the host's "info" prints. A new region's mark lies past "MEM", the
// per-user folder (if any), the user and main file names, the message table
// and its 1025 slots, the frame table and the image pool.
std::string info(int init, const std::string &prog, int locked, const std::string &folder,
                 const std::string &user, const std::string &ini) {
  const size_t mark = (folder.empty() ? 0 : folder.size() + 1) + user.size() + ini.size() + 161907;
  return "init=" + std::to_string(init) + " prog=" + prog + " mark=" + std::to_string(mark) + " makelocked=" +
         std::to_string(locked) + "," + std::to_string(locked) + "\nini=" + ini + "\nuser=" + user + "\n";
}

// The bytes of a shared-memory object, to tell that nothing wrote to it.
std::string object_bytes(const std::string &name) {
  const int fd = shm_open(name.c_str(), O_RDONLY, 0);
  struct stat st {};
  if (fd < 0 || fstat(fd, &st) != 0) return "(absent)";
  std::string bytes(static_cast<size_t>(st.st_size), '\0');
  if (pread(fd, bytes.data(), bytes.size(), 0) != st.st_size) bytes = "(unreadable)";
  close(fd);
  return bytes;
}

// The n newest messages, newest first, one a line.
std::string newest(int n = 1) {
  std::vector<char *> texts(static_cast<size_t>(n));
  std::string s;
  for (int i = 0, got = QDMGetMessages(texts.data(), n); i < got; ++i) s += texts[i] + std::string("\n");
  return s;
}

// The keys of a list from the entry `e` on (at most 8), or (texts) the
// texts from `e` up to an empty one; each followed by a blank.
std::string keys(char *e, bool texts = false) {
  std::string s;
  for (int i = 0; e != nullptr && *(texts ? e : e + 8) && i < 8; ++i, e = texts ? e + std::strlen(e) + 1 : next_key(e))
    s += (texts ? e : e + 8) + std::string(" ");
  return s;
}

// A new region records the main file (the first TEXMF.INI or
// .zelvan/TEXMF.INI up from the program's folder) and the user's (in
// APPDATA, else USERPROFILE, else ~/.config; Zelvan.INI without a folder).
// The next program reuses the region under its own name and reads what the
// first one posted.
TEST(Attach, NewRegionsAndTheirConfigurationFiles) {
  const struct { std::vector<std::string> files; std::string exe, prog; int locked; std::string ini, var, dir, user; }
  cases[] = {  // paths relative to the sandbox
      {{"a/TEXMF.INI"}, "a/b/QUENMARK", "QUENMARK", 1, "a/TEXMF.INI", "HOME", "home", "home/.config/Zelvan TeX/TEXMF.INI"},
      {{"a/TEXMF.INI", "a/b/.zelvan/TEXMF.INI"}, "a/b/tex.fmt.bin", "tex", 0, "a/b/.zelvan/TEXMF.INI", "APPDATA", "ad",
       "ad/Zelvan TeX/TEXMF.INI"},
      {{"a/TEXMF.INI", "a/b/TEXMF.INI", "a/b/.zelvan/TEXMF.INI"}, "a/b/quenmark.bin", "quenmark", 1, "a/b/TEXMF.INI",
       "USERPROFILE", "up", "up/Zelvan TeX/TEXMF.INI"},
      {{"a/.zelvan/TEXMF.INI", "TEXMF.INI"}, "a/b/c/prog", "prog", 0, "a/.zelvan/TEXMF.INI", "APPDATA", "", ""},
      // A file where the folder should be: said, and no user folder.
      {{"TEXMF.INI"}, "bin/prog", "prog", 0, "TEXMF.INI", "APPDATA", "TEXMF.INI", ""},
      {{}, "x/y/prog", "prog", 0, "", "APPDATA", "", ""}};
  for (const auto &c : cases) {
    test::Sandbox box;
    std::remove(box.path("TEXMF.INI").c_str());
    for (const std::string &f : c.files) box.write(f, "[QDM]\n");
    const std::string dir = c.dir.empty() ? "" : box.path(c.dir), ini = box.path(c.ini);
    const std::string folder = dir + (c.var == "HOME" ? "/.config" : "");
    const std::string user = c.user.empty() ? "Zelvan.INI" : box.path(c.user);
    const std::vector<std::string> env = box.env({{c.var, dir}});
    test::RunResult r = test::run({box.install_host(c.exe), "post", " says", "1", "info"}, env);
    EXPECT_EQ(r.out + std::to_string(r.status), c.ini.empty() ? "1" : info(1, c.prog, c.locked, folder, user, ini) + "0");
    EXPECT_EQ(r.err, kNew + (c.ini.empty() ? kError + TDSError + "\nERROR: Can't locate TEXMF.INI file.\n"
                             : c.user.empty() && !dir.empty() ? "ERROR: Trovalis: initialization error - can't create "
                                                                "directory\nERROR: " + dir + "/Zelvan TeX\n" : ""));
    if (c.ini.empty()) continue;  // without a main file the process ends
    r = test::run({box.install_host(), "messages", "1", "info"}, env);
    EXPECT_EQ(r.err + r.out, kReused + "8000000\n" + c.prog + " says\n" + info(0, "host", 0, folder, user, ini));
  }
}

TEST(Attach, KnobsAreValidated) {
  test::Sandbox box;
  const std::string name = "azAZ09-_" + std::string(24, 'x');  // 32 characters
  const std::string bad_name = "TROVALIS_INSTANCE must be at most 32 letters, digits, '-' or '_'";
  const std::string bad_size = "TROVALIS_MAP_SIZE must be a byte count from 1048576 to 1073741824";
  const struct { std::map<std::string, std::string> env; std::string err; } cases[] = {
      {{{"TROVALIS_INSTANCE", "bad/name"}}, bad_name}, {{{"TROVALIS_INSTANCE", name + "y"}}, bad_name},
      {{{"TROVALIS_INSTANCE", name}, {"TROVALIS_MAP_SIZE", "12abc"}}, bad_size},  // the name is good
      {{{"TROVALIS_MAP_SIZE", "1048575"}}, bad_size}, {{{"TROVALIS_MAP_SIZE", "1073741825"}}, bad_size},
      {{{"TROVALIS_MAP_SIZE", "1048576"}}, ""}};
  for (const auto &c : cases) {
    const test::RunResult r = test::run({box.install_host(), "info"}, box.env(c.env));
    EXPECT_EQ(r.err + std::to_string(r.status), c.err.empty() ? kNew + "0" : kError + TDSError + "\nERROR: " + c.err + "\n1");
  }
  EXPECT_EQ(object_bytes(box.region_name()).size(), 1048576u);
}

// Region objects planted before the program starts: the version and mark
// words as given, every other byte 0xA5. A region of this layout whose
// creator died before writing its mark is rebuilt; the others are neither
// mapped nor changed, and the program works on a private region or (another
// layout version) refuses to start.
TEST(Attach, PlantedRegions) {
  const std::string small = "is too small for a region", other = "is owned by another user", refused = "";
  const struct { off_t size; int32_t version, mark; uid_t owner; const std::string *why; } cases[] = {
      {8000000, 10, 0, 0, nullptr}, {8000000, 0, 7, 0, nullptr}, {128, 10, 5000, 0, &small},
      {1048575, 10, 5000, 0, &small}, {8000000, 10, 5000, 54321, &other}, {8000000, 8, 5000, 0, &refused},
      {8000000, 9, 0, 0, &refused}, {8000000, INT32_MAX, 1, 0, &refused}};
  for (const auto &c : cases) {
    if (c.owner != 0 && geteuid() != 0) continue;  // planting for another user needs root
    test::Sandbox box;
    std::string bytes(static_cast<size_t>(c.size), '\xa5');
    std::memcpy(bytes.data(), &c.version, 4);
    std::memcpy(bytes.data() + 8, &c.mark, 4);
    const int fd = shm_open(box.region_name().c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(pwrite(fd, bytes.data(), bytes.size(), 0), c.size);
    ASSERT_TRUE(c.owner == 0 || fchown(fd, c.owner, c.owner) == 0);
    close(fd);
    const test::RunResult r = test::run({box.install_host(), "post", "x", "1", "messages", "1", "info"}, box.env());
    EXPECT_EQ(r.err + std::to_string(r.status), kReused + std::to_string(c.size) + "\n" +
              (c.why == &refused ? "ERROR: Zelvan Trovalis Error\nERROR: There is already running incompatible version of QDM\n1"
               : c.why ? kError + TDSError + "\nERROR: Shared Memory Name=`" + box.region_name() + "' " + *c.why +
                             "; using a private region\n0" : "0"));
    EXPECT_THAT(r.out, ::testing::HasSubstr(c.why == &refused ? "" : "hostx\ninit=1 "));
    EXPECT_EQ(object_bytes(box.region_name()) == bytes, c.why != nullptr) << c.size << " " << c.version;
  }
}

#ifdef __linux__
TEST(Attach, LockOfAnotherUserIsNeitherTakenNorPosted) {
  if (geteuid() != 0) GTEST_SKIP() << "planting a semaphore of another user needs root";
  test::Sandbox box;
  sem_t *sem = sem_open(box.lock_name().c_str(), O_CREAT, 0666, 0);  // never free
  ASSERT_EQ(chown(("/dev/shm/sem." + box.lock_name().substr(1)).c_str(), 54321, 54321), 0);
  const test::RunResult r = test::run({box.install_host(), "post", "x", "1", "messages", "1", "info"}, box.env());
  EXPECT_EQ(r.err, kError + TDSError + "\nERROR: Semaphore `" + box.lock_name() +
                       "' is owned by another user; using a private lock\n");
  EXPECT_THAT(r.out, ::testing::HasSubstr("hostx\ninit=1 "));
  int value = -1;
  sem_getvalue(sem, &value);
  EXPECT_EQ(value + sem_close(sem), 0);
  EXPECT_EQ(object_bytes(box.region_name()), "(absent)");
}
#endif

// A /dev/shm too small for the region is reported at attach, and the program
// works on a private region instead of dying of SIGBUS at its first write.
TEST(Attach, TooSmallSharedMemoryIsReported) {
  const char *unshare = "/usr/bin/unshare";
  if (access(unshare, X_OK) != 0 || test::run({unshare, "-m", "mount", "-t", "tmpfs", "tmpfs", "/mnt"}, {}).status)
    GTEST_SKIP() << "cannot mount a tmpfs in a mount namespace here";
  test::Sandbox box;
  const test::RunResult r = test::run({unshare, "-m", "/bin/sh", "-c", "mount -t tmpfs -o size=512k tmpfs /dev/shm && "
                                       "exec \"$0\" \"$@\"", box.install_host(), "post", "x", "1", "messages", "1", "info"},
                                      box.env());
  EXPECT_THAT(r.err, ::testing::HasSubstr("ERROR [No space left on device] in sizing of Shared Memory Name=`" +
                               box.region_name() + "', Size=8000000"));
  EXPECT_THAT(r.out, ::testing::HasSubstr("hostx\ninit=1 "));
  EXPECT_EQ(r.status, 0);
}

struct RegionTest : ::testing::Test {
  test::ScopedEnv fixed{"TROVALIS_MAP_SIZE", "8000000"};  // a full arena stays full
  test::AttachedTest attached{"[QDM]\nls-R=$SELFAUTOPARENT/texmf\ntfm=$SELFAUTOPARENT/texmf//+.tfm\n"};
};

// Hash tables and move-to-front lists, then the arena they live in: it grows
// up to the pool and no further, and every offset is checked.
TEST_F(RegionTest, ArenaAndWhatLivesInIt) {
  EXPECT_EQ(hash_index("A\xE9", 711), 107u);  // 2 * 65 - 23: a byte above 127 counts as negative
  EXPECT_EQ(hash_index("zZ", 100), 70u);      // case ignored, reduced after every byte: (2 * 90 + 90) % 100
  const int t = hash_create(3);  // a key of one letter: the letter's upper case % 3
  for (const char *k : {"a", "b", "A", "c"}) hash_insert(t, k, k[0]);  // appended
  hash_insert_revert(t, "B", 5);  // prepended: shadows b
  EXPECT_EQ(keys(at(hash_bucket_head(t, 0), 8)) + "| " + keys(at(hash_bucket_head(t, 1), 8)) + "| " +
                keys(at(hash_bucket_head(t, 2), 8)), "B b | c | a A ");
  EXPECT_EQ(hash_lookup(t, "A") + hash_lookup(t, "b") + hash_lookup(t, "C") + hash_lookup(t, "d"), 'a' + 5 + 'c');
  // A look-up moves its entry to the front; an insert compares only the
  // first entry (changed in place), else it adds a new one in front.
  const int l = lru_create("fonts");
  for (const char *k : {"c", "b", "a"}) lru_insert(l, k, k[0]);  // each in front: a b c
  EXPECT_EQ(lru_lookup(l, "B") + lru_lookup(l, "nothing"), 'b');
  for (const auto &[k, v] : {std::pair{"B", 5}, {"c", 9}}) lru_insert(l, k, v);
  EXPECT_EQ(keys(lru_head(l)) + std::to_string(loadi(at(l, 8) + LruHeadLayout::kCount)), "c b a c 4");
  EXPECT_EQ(lru_lookup(l, "C") + lru_lookup(l, "b"), 9 + 5);
  const int end = static_cast<int>(data_bytes()), used = hdr(Word::Mem_Used), low = hdr(Word::Pool_Low);
  const int posted = QDMMsgInfo()[1];
  EXPECT_EQ(std::vector<int>({end, hdr(Word::Mem_Max), low}), std::vector<int>({7999872, 7999868, 7999867}));
  EXPECT_EQ(salloc(0) + salloc(10), 2 * used);
  EXPECT_EQ(stradd("abc"), used + 10);
  EXPECT_EQ(add_str(0x01020304, "key"), used + 14);
  EXPECT_EQ(std::string(at(used + 10, 12), 12), std::string("abc\0\x04\x03\x02\x01key", 12));
  // The top never meets the pool; a refusal is logged and changes nothing.
  EXPECT_EQ(salloc(low - used - 25) + salloc(-1), -2);
  EXPECT_EQ(hdr(Word::Mem_Used) - used + QDMMsgInfo()[1] - posted, 25 + 2);
  EXPECT_EQ(newest(), kExhausted);
  EXPECT_EQ(salloc(low - used - 26), used + 25);
  const struct { int32_t off; int64_t len; bool valid; } cases[] = {
      {0, 4, true}, {-1, 1, false}, {end - 1, 1, true}, {end - 1, 2, false}, {end, 1, false}, {0, -1, false}};
  for (const auto &c : cases) EXPECT_EQ(at(c.off, c.len) != nullptr, c.valid) << c.off << "+" << c.len;
  set_hdr(Word::Pool_Low, INT32_MAX);  // nor is a damaged top trusted
  for (const int top : {end - 4, -50}) { set_hdr(Word::Mem_Used, top); EXPECT_EQ(salloc(4), -1) << top; }
}

// The message log keeps the newest 1024 lines; frames are found by name
// while their process lives; pool texts never meet the arena.
TEST_F(RegionTest, MessagesFramesAndPools) {
  QDMMessage(std::string(70, 's').c_str(), std::string(50, 't').c_str(), 1);  // cut to 100
  QDMMessage(std::string(300, 'x').c_str(), "tail", 1);
  QDMMessage(nullptr, ": hello", 1);  // no source: the program's name
  message("Check path: ", std::string(999, '/').c_str());  // a line of at most 255 characters, then cut
  message("no argument", nullptr);
  EXPECT_EQ(newest(5), "QDM-prog: no argument\nQDM-prog: Check path: " + std::string(78, '/') + "\nprog: hello\n" +
                           std::string(100, 'x') + "\n" + std::string(70, 's') + std::string(30, 't') + "\n");
  // Types: the low byte, and for extended ones (low byte 0xFF) three more in
  // front; counters of types 4 and 5 and of all, which go round.
  for (const Word w : {Word::Msg_Total, Word::Msg_Warnings, Word::Msg_Type5}) set_hdr(w, INT32_MAX);
  for (const int type : {0x123456FF, 4, 5, 0x1FE}) QDMMessage("s", "t", type);
  char *texts[5];
  ASSERT_EQ(QDMGetMessages(texts, 5), 5);
  EXPECT_EQ(std::string(texts[3] - 4, 4) + texts[2][-1] + texts[1][-1] + texts[0][-1] + texts[4][-1],
            "\x12\x34\x56\xFF\x04\x05\xFE\x01");
  EXPECT_EQ(std::vector<int>(QDMMsgInfo() + 1, QDMMsgInfo() + 4), std::vector<int>({INT32_MIN + 3, INT32_MIN, INT32_MIN}));
  for (int i = 0; i < 1025; ++i) QDMMessage("src:", std::to_string(i).c_str(), 1);
  const std::string all = newest(1100);
  EXPECT_EQ(std::to_string(QDMMsgInfo()[0]) + ": " + all.substr(0, 18) + all.substr(all.size() - 12),
            "1024: src:1024\nsrc:1023\nsrc:2\nsrc:1\n");  // src:0 was dropped
  for (const auto &[name, handle] : {std::pair{"A", 11}, {"zero", 0}, {"Viewer", 1}, {"VIEWER", 12}})
    EXPECT_EQ(RegisterFrame(name, handle), 1);  // handle 0: no frame; VIEWER: the same entry respelt
  EXPECT_EQ(FindFrame("a") * 100 + FindFrame("viewer") + FindFrame("zero") + FindFrame("missing"), 1112);
  std::string lists;  // FrameList into 10, 9 and 2 bytes: the names that fit with their NULs and the last
  for (const int size : {10, 9, 2}) {
    std::vector<char> buf(static_cast<size_t>(size) + 8, 'X');
    lists += std::to_string(FrameList(buf.data(), size)) + ": ";
    lists += keys(buf.data(), true);
  }
  EXPECT_EQ(lists, "9: A VIEWER 2: A 0: ");
  storei(at(hdr(Word::Frame_Table) + 4, 4), INT32_MAX);  // A's process is gone
  EXPECT_EQ(FindFrame("A") * 100 + FindFrame("Viewer"), 12);
  for (int i = 3; i < 128; ++i) ASSERT_EQ(RegisterFrame(("f" + std::to_string(i)).c_str(), i), 1);
  EXPECT_EQ(RegisterFrame("one-too-many", 1) * 10 + RegisterFrame("F127", 999), 1);  // 128 entries
  EXPECT_EQ(UnRegisterProcessFrames(getpid()), 1);
  EXPECT_EQ(FindFrame("viewer") + FindFrame("f127"), 0);
  // Pool texts are packed down from the top, newest first, and never meet the arena.
  const int low = hdr(Word::Pool_Low), used = hdr(Word::Mem_Used), posted = QDMMsgInfo()[1];
  for (const char *text : {"abc", "de"}) EXPECT_EQ(QDMAddToPool(text), static_cast<int>(std::strlen(text)));
  EXPECT_EQ(keys(QDMGetPool(), true) + std::to_string(low - hdr(Word::Pool_Low)), "de abc 7");
  QDMClearPool();
  EXPECT_EQ(keys(QDMGetPool(), true) + std::to_string(low - hdr(Word::Pool_Low)), "0");
  // For 5 characters a room of 6 is refused, one of 7 taken.
  for (const int room : {6, 7}) { set_hdr(Word::Pool_Low, used + room); EXPECT_EQ(QDMAddToPool("abcde"), room == 7 ? 5 : 0); }
  EXPECT_EQ(hdr(Word::Pool_Low) - used + QDMMsgInfo()[1] - posted, 1 + 1);
  set_hdr(Word::Msg_Max, 0);  // a queue of no slots takes nothing
  EXPECT_EQ(_QDMMessage("s", "t", 1), 0);
}

}  // namespace
}  // namespace trv
