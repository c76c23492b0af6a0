// The shared message queue: posting, reading, counters and type encoding.
#include <gtest/gtest.h>

#include <string>

#include "core/region.h"
#include "support/sandbox.h"
#include "trovalis.h"

namespace trv {
namespace {

class MessageTest : public ::testing::Test {
 protected:
  test::AttachedTest attached;

  // The four bytes in front of the text of the newest message.
  const unsigned char *newest_type_bytes() {
    char *texts[1];
    EXPECT_EQ(QDMGetMessages(texts, 1), 1);
    return reinterpret_cast<const unsigned char *>(texts[0] - 4);
  }
};

TEST_F(MessageTest, QueueKeepsTheNewest1024) {
  const int base = QDMMsgInfo()[1];  // lines the attach itself logged
  for (int i = 0; i < 1025; ++i) QDMMessage("src:", std::to_string(i).c_str(), 1);
  const int *info = QDMMsgInfo();
  EXPECT_EQ(info[0], 1024);  // held
  EXPECT_EQ(info[1], base + 1025);  // total
  static char *texts[1100];
  ASSERT_EQ(QDMGetMessages(texts, 1100), 1024);
  EXPECT_STREQ(texts[0], "src:1024");
  EXPECT_STREQ(texts[1023], "src:1");  // "src:0" was dropped
}

TEST_F(MessageTest, ReadsAreNewestFirstAndBounded) {
  QDMMessage("", "a", 1);
  QDMMessage("", "b", 1);
  QDMMessage("", "c", 1);
  char *texts[10];
  ASSERT_GE(QDMGetMessages(texts, 10), 3);
  EXPECT_STREQ(texts[0], "c");
  EXPECT_STREQ(texts[2], "a");
  EXPECT_EQ(QDMGetMessages(texts, 2), 2);
}

TEST_F(MessageTest, TypeEncodingAndCounters) {
  struct Case {
    int type;
    unsigned char bytes[4];
    int warnings, type5;
  } cases[] = {
      {static_cast<int>(0x123456FFu), {0x12, 0x34, 0x56, 0xFF}, 0, 0},
      {4, {0x00, 0x00, 0x00, 0x04}, 1, 0},
      {5, {0x00, 0x00, 0x00, 0x05}, 1, 1},
      {0x1FE, {0x00, 0x00, 0x00, 0xFE}, 1, 1},
  };
  for (const Case &c : cases) {
    QDMMessage("s", "t", c.type);
    const unsigned char *b = newest_type_bytes();
    // Bytes 0-2 are defined only for extended types; a plain type leaves
    // whatever the slot held.
    if (c.bytes[3] == 0xFF) {
      for (int i = 0; i < 4; ++i) EXPECT_EQ(b[i], c.bytes[i]) << c.type << " byte " << i;
    } else {
      EXPECT_EQ(b[3], c.bytes[3]) << c.type;
    }
    EXPECT_EQ(QDMMsgInfo()[2], c.warnings);
    EXPECT_EQ(QDMMsgInfo()[3], c.type5);
  }
}

TEST_F(MessageTest, TextsAreCutTo100Characters) {
  const std::string source(70, 's'), text(50, 't');
  QDMMessage(source.c_str(), text.c_str(), 1);
  char *texts[1];
  QDMGetMessages(texts, 1);
  EXPECT_EQ(std::string(texts[0]), source + std::string(30, 't'));

  const std::string long_source(300, 'x');
  QDMMessage(long_source.c_str(), "tail", 1);
  QDMGetMessages(texts, 1);
  EXPECT_EQ(std::string(texts[0]), std::string(100, 'x'));
}

TEST_F(MessageTest, MessageFormatsSourceAndText) {
  std::snprintf(ProgName, sizeof ProgName, "tex");
  message("Check path: ", "/usr/local/texmf");
  message("no argument", nullptr);
  char *texts[2];
  ASSERT_EQ(QDMGetMessages(texts, 2), 2);
  EXPECT_STREQ(texts[1], "QDM-tex: Check path: /usr/local/texmf");
  EXPECT_STREQ(texts[0], "QDM-tex: no argument");
  EXPECT_EQ(newest_type_bytes()[3], 1);
}

TEST_F(MessageTest, NullSourceIsTheProgramName) {
  QDMMessage(nullptr, ": hello", 1);
  char *texts[1];
  QDMGetMessages(texts, 1);
  EXPECT_STREQ(texts[0], "prog: hello");
}

TEST_F(MessageTest, ConfigurationFilesAndNotifier) {
  EXPECT_STREQ(QDMINIFile(0), attached.box.path("TEXMF.INI").c_str());
  EXPECT_NE(QDMINIFile(1), nullptr);
  EXPECT_EQ(QDMINIFile(2), nullptr);
  EXPECT_EQ(QDMINIFile(-1), nullptr);

  static int seen = 0;
  EXPECT_EQ(NotifyState(7), 0);  // no callback: nothing happens
  QDMSetStateNotifier([](int v) { seen = v; });
  EXPECT_EQ(NotifyState(42), 0);
  EXPECT_EQ(seen, 42);
  QDMSetStateNotifier(nullptr);
}

// Found by fuzzing: a counter at its largest value once overflowed.
TEST_F(MessageTest, CountersGoRound) {
  for (const Word w : {Word::Msg_Total, Word::Msg_Warnings, Word::Msg_Type5})
    set_hdr(w, INT32_MAX);
  QDMMessage("s", "t", 4);
  QDMMessage("s", "t", 5);
  EXPECT_EQ(QDMMsgInfo()[1], INT32_MIN + 1);
  EXPECT_EQ(QDMMsgInfo()[2], INT32_MIN);
  EXPECT_EQ(QDMMsgInfo()[3], INT32_MIN);
}

TEST(MessageNoRegion, PostingWithoutAQueueLosesTheMessage) {
  EXPECT_EQ(_QDMMessage("s", "t", 1), 0);
  char *texts[1];
  EXPECT_EQ(_QDMGetMessages(texts, 1), 0);
}

}  // namespace
}  // namespace trv
