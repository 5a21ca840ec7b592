#include "store/message_record.h"

#include <gtest/gtest.h>

#include "core/byte_io.h"
#include "store/index_parser.h"

namespace trv {
namespace {

MessageRecord Sample() {
  MessageRecord r;
  r.key = 0x2A;
  r.flags = msgflag::kRead | msgflag::kPriorityHigh | msgflag::kPartial;
  r.sent_date = 45000.5;
  r.received_date = 45001.25;
  r.size = 4096;
  r.server_size = 10000;
  r.imap_uid = 77;
  r.imap_uid_validity = 1234567;
  r.server_folder = 3;
  r.spare[0] = 0xEE;
  r.spare[27] = 0x11;
  r.subject = u"Gr\u00fc\u00dfe \U0001F600";
  r.from = u"Ann <ann@example.org>";
  r.to = u"bob@example.org, carl@example.org";
  r.cc = u"";
  r.message_id = u"abc@example.org";
  r.server_uid = u"UID-1";
  return r;
}

TEST(MessageRecordTest, FixedPartLayout) {
  const std::string bytes = EncodeMessageRecord(Sample(), kRecordDeleted);
  const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
  EXPECT_EQ(GetU32(p + 0), bytes.size());
  EXPECT_EQ(GetU32(p + 4), kRecordDeleted);
  EXPECT_EQ(GetU32(p + 8), msgflag::kRead | msgflag::kPriorityHigh | msgflag::kPartial);
  EXPECT_EQ(GetU32(p + 12), 0x2Au);
  double d;
  std::memcpy(&d, p + 16, 8);  // the tests run on little-endian machines
  EXPECT_EQ(d, 45000.5);
  std::memcpy(&d, p + 24, 8);
  EXPECT_EQ(d, 45001.25);
  EXPECT_EQ(GetU32(p + 32), 4096u);
  EXPECT_EQ(GetU32(p + 36), 10000u);
  EXPECT_EQ(GetU32(p + 40), 77u);
  EXPECT_EQ(GetU32(p + 44), 1234567u);
  EXPECT_EQ(GetU32(p + 48), 3u);
  EXPECT_EQ(p[52], 0xEE);
  EXPECT_EQ(p[79], 0x11);
  // String 1 follows at 80: its count, then UTF-16LE units.
  EXPECT_EQ(GetU32(p + 80), Sample().subject.size());
  EXPECT_EQ(GetU16(p + 84), u'G');
  // String 7 is written empty and closes the record.
  EXPECT_EQ(GetU32(p + bytes.size() - 4), 0u);
}

TEST(MessageRecordTest, RoundTripThroughParser) {
  MessageRecord r = Sample();
  const std::string bytes = EncodeMessageRecord(r);
  IndexItem item;
  ASSERT_EQ(ParseIndexRecord(bytes, bytes.size(), &item), IndexParse::kRecord);
  EXPECT_EQ(item.kind, IndexItem::kMessage);
  EXPECT_EQ(item.length, bytes.size());
  EXPECT_EQ(item.message, r);

  MessageRecord empty;
  empty.key = 1;
  const std::string minimal = EncodeMessageRecord(empty);
  EXPECT_EQ(minimal.size(), kMinRecordSize);
  ASSERT_EQ(ParseIndexRecord(minimal, minimal.size(), &item), IndexParse::kRecord);
  EXPECT_EQ(item.message, empty);
}

TEST(MessageRecordTest, LongStringsAreCutWithoutSplittingAPair) {
  MessageRecord r = Sample();
  r.to = WString(kMaxRecordStringUnits - 1, u'x') + u"\U0001F600" + u"tail";
  const std::string bytes = EncodeMessageRecord(r);
  IndexItem item;
  ASSERT_EQ(ParseIndexRecord(bytes, bytes.size(), &item), IndexParse::kRecord);
  EXPECT_EQ(item.message.to, WString(kMaxRecordStringUnits - 1, u'x'));
}

TEST(MessageRecordTest, StreamNames) {
  EXPECT_EQ(MessageStreamName(26), u"0000001A");
  EXPECT_EQ(MessageStreamName(0xFFFFFFFF), u"FFFFFFFF");
  struct Row {
    const char16_t* name;
    bool ok;
    uint32_t key;
  } rows[] = {
      {u"0000002A", true, 42},   {u"FFFFFFFF", true, 0xFFFFFFFF}, {u"00000000", false, 0},
      {u"0000002a", false, 0},   {u"0000002", false, 0},          {u"000000002", false, 0},
      {u"0000002G", false, 0},   {u"Index", false, 0},
  };
  for (const Row& row : rows) {
    uint32_t key = 0;
    EXPECT_EQ(KeyFromStreamName(row.name, &key), row.ok) << WideToUtf8(row.name);
    if (row.ok) EXPECT_EQ(key, row.key) << WideToUtf8(row.name);
  }
}

// Writes a record by hand: fixed part fields and raw string counts.
std::string RawRecord(uint32_t length, uint32_t flags, uint32_t key, std::vector<int32_t> counts) {
  std::string out(kRecordFixedSize, '\0');
  auto* p = reinterpret_cast<uint8_t*>(out.data());
  PutU32(p, length);
  PutU32(p + 4, flags);
  PutU32(p + 12, key);
  ByteWriter w(&out);
  for (int32_t c : counts) {
    w.I32(c);
    for (int32_t i = 0; i < c && i < 1000; ++i) w.U16(u'a');  // huge counts: units left out
  }
  if (out.size() < length) out.resize(length, '\0');
  return out;
}

TEST(IndexParserTest, EndsStopsAndDamage) {
  const std::vector<int32_t> seven(7, 0);
  const std::string good = RawRecord(108, 0, 5, seven);
  struct Row {
    const char* name;
    std::string bytes;
    uint64_t left;  // 0: the size of `bytes`
    IndexParse want;
  } rows[] = {
      {"nothing left", "", 0, IndexParse::kEnd},
      {"good", good, 0, IndexParse::kRecord},
      {"short tail", std::string(79, 'x'), 0, IndexParse::kStop},
      {"zero length", RawRecord(0, 0, 5, seven), 0, IndexParse::kStop},
      {"zero key", RawRecord(108, 0, 0, seven), 0, IndexParse::kStop},
      {"length below the minimum", RawRecord(107, 0, 5, seven).substr(0, 108), 0, IndexParse::kDamaged},
      {"window ends inside the record", RawRecord(200, 0, 5, seven).substr(0, 150), 1000, IndexParse::kNeedMore},
      {"length past the end", RawRecord(200, 0, 5, seven).substr(0, 150), 150, IndexParse::kDamaged},
      {"length past the limit", RawRecord(kMaxRecordSize + 2, 0, 5, seven).substr(0, 108), uint64_t{1} << 32,
       IndexParse::kDamaged},
      {"string past the record", RawRecord(112, 0, 5, {0, 0, 0, 0, 0, 3, 0}), 0, IndexParse::kDamaged},
      {"huge count", RawRecord(108, 0, 5, {0x7FFFFFFF}).substr(0, 108), 0, IndexParse::kDamaged},
      {"room after the strings", RawRecord(120, 0, 5, seven), 0, IndexParse::kRecord},
      {"negative counts are empty", RawRecord(108, 0, 5, std::vector<int32_t>(7, -1)), 0, IndexParse::kRecord},
      {"deleted record is not parsed", RawRecord(300, 0x8000, 5, {0x7FFFFFFF}), 0, IndexParse::kRecord},
      {"deleted with a bad length", RawRecord(50, 0x8000, 5, seven).substr(0, 100), 0, IndexParse::kDamaged},
  };
  for (const Row& row : rows) {
    IndexItem item;
    EXPECT_EQ(ParseIndexRecord(row.bytes, row.left ? row.left : row.bytes.size(), &item), row.want) << row.name;
  }
}

TEST(IndexParserTest, ReferenceEntriesKeepStringsFiveAndSix) {
  MessageRecord r = Sample();
  const std::string bytes = EncodeMessageRecord(r, kRecordReference);
  IndexItem item;
  ASSERT_EQ(ParseIndexRecord(bytes, bytes.size(), &item), IndexParse::kRecord);
  EXPECT_EQ(item.kind, IndexItem::kReference);
  EXPECT_EQ(item.reference.key(), 0x2Au);
  EXPECT_EQ(item.reference.string5, r.message_id);
  EXPECT_EQ(item.reference.string6, r.server_uid);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(item.reference.fixed.data()), 80), bytes.substr(0, 80));
}

// Every window shorter than the record asks for more; the whole record
// then gives the same result as at once.
TEST(IndexParserTest, EverySplitAsksForMoreThenParses) {
  const std::string bytes = EncodeMessageRecord(Sample()) + "following bytes";
  for (size_t split = 0; split < bytes.size() - 15; ++split) {
    IndexItem item;
    const IndexParse got = ParseIndexRecord(std::string_view(bytes).substr(0, split), bytes.size(), &item);
    ASSERT_EQ(got, IndexParse::kNeedMore) << "split " << split;
    ASSERT_GT(item.length, split) << "split " << split;
  }
  IndexItem item;
  ASSERT_EQ(ParseIndexRecord(bytes, bytes.size(), &item), IndexParse::kRecord);
  EXPECT_EQ(item.message, Sample());
}

}  // namespace
}  // namespace trv
