// Helpers shared by the folder file tests.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "store/container.h"
#include "store/container_stream.h"
#include "store/folder_file.h"
#include "tests/support/recording_log.h"

namespace trv::test {

inline MessageRecord Record(std::string subject, bool read = false) {
  MessageRecord r;
  r.subject = Utf8ToWide(subject);
  r.from = u"Ann <ann@example.org>";
  r.to = u"bob@example.org";
  r.message_id = Utf8ToWide(subject + "@example.org");
  r.sent_date = 45000.5;
  r.received_date = 45001.5;
  if (read) r.flags |= msgflag::kRead;
  return r;
}

inline std::string Text(const std::string& subject, size_t body = 200) {
  return "Subject: " + subject + "\r\nFrom: ann@example.org\r\n\r\n" + std::string(body, 'b') + "\r\n";
}

// The messages' subjects in index order.
inline std::vector<std::string> Subjects(const FolderFile& f) {
  std::vector<std::string> out;
  for (const MessageRecord& r : f.Messages()) out.push_back(WideToUtf8(r.subject));
  return out;
}

// Opens a closed folder file's container directly, to look at or damage
// its streams the way only a fault or another program would.
class RawFolder {
 public:
  explicit RawFolder(const std::filesystem::path& path) {
    EXPECT_EQ(c_.Open(path, {.label = u"Mail Storage", .sync_commits = false}), rc::kOk);
  }
  std::string Read(WStringView name) {
    std::unique_ptr<ContainerStream> s;
    if (c_.OpenStream(name, StreamOpen::kExisting, &s).failed()) return "<missing>";
    std::string out;
    EXPECT_EQ(s->ReadRest(&out, UINT32_MAX), rc::kOk);
    return out;
  }
  void Write(WStringView name, const std::string& bytes) {
    std::unique_ptr<ContainerStream> s;
    ASSERT_EQ(c_.OpenStream(name, StreamOpen::kCreate, &s), rc::kOk);
    ASSERT_EQ(s->WriteAll(bytes), rc::kOk);
    ASSERT_EQ(s->Cut(), rc::kOk);
  }
  bool Exists(WStringView name) { return c_.StreamExists(name); }
  Container& container() { return c_; }

 private:
  Container c_;
};

}  // namespace trv::test
