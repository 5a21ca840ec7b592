#include "app/cli/listing.h"

#include <ctime>

#include "app/cli/cli.h"
#include "app/cli/json_writer.h"
#include "app/cli/text_table.h"
#include "base/date_value.h"

namespace trv::cli {

namespace {

std::string LocalDate(double date) {
  if (date == kNoDate) return "";
  const std::time_t t = static_cast<std::time_t>(TimeTFromDate(date));
  std::tm local{};
  ::localtime_r(&t, &local);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M", &local);
  return buf;
}

std::string Marks(const MessageRecord& r) {
  std::string marks = r.is_read() ? "read" : "unread";
  if (r.flags & msgflag::kPartial) marks += ",partial";
  return marks;
}

}  // namespace

std::string IsoDateUtc(double date) {
  if (date == kNoDate) return "";
  const CivilTime t = CivilFromDate(date);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02dZ", t.year, t.month, t.day, t.hour, t.minute,
                t.second);
  return buf;
}

void AppendRecordJson(const MessageRecord& r, std::string* out, std::string_view folder) {
  JsonWriter json;
  json.BeginObject();
  if (!folder.empty()) {
    json.Key("folder");
    json.String(folder);
  }
  json.Key("key");
  json.String(KeyText(r.key));
  json.Key("date");
  if (r.sent_date == kNoDate) {
    json.Null();
  } else {
    json.String(IsoDateUtc(r.sent_date));
  }
  json.Key("from");
  json.String(Utf8(r.from));
  json.Key("subject");
  json.String(Utf8(r.subject));
  json.Key("size");
  json.Int(r.size);
  json.Key("read");
  json.Bool(r.is_read());
  json.Key("partial");
  json.Bool(r.flags & msgflag::kPartial);
  json.EndObject();
  *out += json.text();
}

void WriteListingJson(const FolderFile& file, const std::function<void(std::string_view)>& write) {
  std::string out = "[";
  const size_t count = file.MessageCount();
  for (size_t i = 0; i < count; ++i) {
    const std::optional<MessageRecord> record = file.MessageAt(i);
    if (!record) break;  // another thread deleted messages meanwhile
    if (i > 0) out += ',';
    AppendRecordJson(*record, &out);
    if (out.size() >= 64 * 1024) {
      write(out);
      out.clear();
    }
  }
  out += "]\n";
  write(out);
}

std::string ListingText(const std::vector<MessageRecord>& records) {
  TextTable table({"KEY", "DATE", "FROM", "SUBJECT", "SIZE", "MARKS"},
                  {TextTable::kLeft, TextTable::kLeft, TextTable::kLeft, TextTable::kLeft, TextTable::kRight,
                   TextTable::kLeft});
  for (const MessageRecord& r : records) {
    table.AddRow({KeyText(r.key), LocalDate(r.sent_date), Utf8(r.from), Utf8(r.subject), std::to_string(r.size),
                  Marks(r)});
  }
  return table.Render();
}

}  // namespace trv::cli
