#include "store/message_record.h"

#include <gtest/gtest.h>

#include <cstring>

#include "base/byte_io.h"
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
  r.message_id = u"abc@example.org";
  r.server_uid = u"UID-1";
  return r;
}

// The layout existing files have; a round trip alone would not notice two
// fields swapped in both directions.
TEST(MessageRecordTest, FixedPartLayout) {
  const std::string bytes = EncodeMessageRecord(Sample(), kRecordDeleted);
  const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
  const std::pair<size_t, uint32_t> u32s[] = {
      {0, static_cast<uint32_t>(bytes.size())}, {4, kRecordDeleted}, {8, Sample().flags}, {12, 0x2A},
      {32, 4096}, {36, 10000}, {40, 77}, {44, 1234567}, {48, 3},
      {80, static_cast<uint32_t>(Sample().subject.size())},  // string 1: count, then UTF-16LE units
      {bytes.size() - 4, 0},                                 // string 7 is written empty
  };
  for (const auto& [at, want] : u32s) EXPECT_EQ(GetU32(p + at), want) << "offset " << at;
  double d[2];
  std::memcpy(d, p + 16, 16);  // the tests run on little-endian machines
  EXPECT_EQ(d[0], 45000.5);
  EXPECT_EQ(d[1], 45001.25);
  EXPECT_EQ(p[52], 0xEE);
  EXPECT_EQ(p[79], 0x11);
  EXPECT_EQ(GetU16(p + 84), u'G');
}

// An empty record has the minimum size and comes back whole (Sample: see
// the split test); a reference entry keeps its fixed part and strings 5 and
// 6; a string past the limit is cut before a surrogate pair.
TEST(MessageRecordTest, EncodedRecordsParseBack) {
  MessageRecord empty;
  empty.key = 1;
  std::string bytes = EncodeMessageRecord(empty);
  EXPECT_EQ(bytes.size(), kMinRecordSize);
  IndexItem item;
  ASSERT_EQ(ParseIndexRecord(bytes, bytes.size(), &item), IndexParse::kRecord);
  EXPECT_EQ(item.kind, IndexItem::kMessage);
  EXPECT_EQ(item.message, empty);

  bytes = EncodeMessageRecord(Sample(), kRecordReference);
  ASSERT_EQ(ParseIndexRecord(bytes, bytes.size(), &item), IndexParse::kRecord);
  EXPECT_EQ(item.kind, IndexItem::kReference);
  EXPECT_EQ(item.reference.string5, Sample().message_id);
  EXPECT_EQ(item.reference.string6, Sample().server_uid);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(item.reference.fixed.data()), 80), bytes.substr(0, 80));

  MessageRecord r = Sample();
  r.to = WString(kMaxRecordStringUnits - 1, u'x') + u"\U0001F600" + u"tail";
  bytes = EncodeMessageRecord(r);
  ASSERT_EQ(ParseIndexRecord(bytes, bytes.size(), &item), IndexParse::kRecord);
  EXPECT_EQ(item.message.to, WString(kMaxRecordStringUnits - 1, u'x'));
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
  struct Row { const char* name; std::string bytes; uint64_t left; IndexParse want; } rows[] = {  // left 0: all
      {"nothing left", "", 0, IndexParse::kEnd},
      {"good", RawRecord(108, 0, 5, seven), 0, IndexParse::kRecord},
      {"short tail", std::string(79, 'x'), 0, IndexParse::kStop},
      {"zero length", RawRecord(0, 0, 5, seven), 0, IndexParse::kStop},
      {"zero key", RawRecord(108, 0, 0, seven), 0, IndexParse::kStop},
      {"length below the minimum", RawRecord(107, 0, 5, seven).substr(0, 108), 0, IndexParse::kDamaged},
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
  EXPECT_EQ(item.length, bytes.size() - 15);
  EXPECT_EQ(item.message, Sample());
}

}  // namespace
}  // namespace trv
