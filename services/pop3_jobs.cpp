#include "services/pop3_jobs.h"

#include <cmath>
#include <cstdio>

#include "base/wide_string.h"
#include "mime/message_text.h"

namespace trv {
namespace {

bool Older(double date, double now, int32_t days) { return now - date > static_cast<double>(days); }

// Whether the server's copy goes. `downloaded`: this run stores it (whole
// or not is known only later; the run clears `del` for a partial result).
bool DeleteDecision(const Pop3Rules& rules, const std::optional<Pop3LocalCopy>& local,
                    const std::optional<double>& deleted, bool downloaded, double now) {
  if (deleted) {
    return rules.delete_on_server || rules.delete_after_local_deletion ||
           Older(*deleted, now, rules.delete_after_days);
  }
  if (downloaded) return rules.delete_on_server;
  if (!local || local->partial) return false;
  return rules.delete_on_server ||
         (!rules.delete_after_local_deletion && Older(local->date, now, rules.delete_after_days));
}

}  // namespace

bool NeedsReload(const Pop3LocalCopy& local) { return local.partial && local.full_download_requested; }

Result PlanPop3Jobs(const std::vector<Pop3ServerMessage>& list, const Pop3Rules& rules, double now,
                    const Pop3PlanSources& sources, std::vector<Pop3DownloadJob>* jobs) {
  jobs->clear();
  for (size_t i = 0; i < list.size(); ++i) {
    const Pop3ServerMessage& m = list[i];
    if (m.number < 0) continue;
    bool candidate = m.size < rules.load_max_size;
    std::string uid = m.uid;
    Pop3Head head;
    bool have_head = false;
    auto read_head = [&]() -> Result {
      if (sources.progress) sources.progress(i, list.size() - 1);
      have_head = true;
      return sources.read_head(m.number, &head);
    };
    if (uid.empty()) {
      // Without UIDL the UID comes from the header; a message that would
      // not be loaded anyway is not asked for.
      if (!rules.header_mode || !candidate) continue;
      if (Result r = read_head(); r.failed()) return r;
      uid = head.uid;
    }
    const std::optional<Pop3LocalCopy> local = sources.local(uid);
    const std::optional<double> deleted = sources.deleted(uid);
    bool reload = false;
    if (local) candidate = reload = candidate && NeedsReload(*local);
    if (deleted) candidate = reload = false;
    // The age limit; a reload the user asked for is not subject to it.
    if (candidate && !reload && rules.header_mode) {
      if (!have_head) {
        if (Result r = read_head(); r.failed()) return r;
      }
      if (now - std::floor(head.sent_date) - 1 > static_cast<double>(rules.load_last_days)) candidate = false;
    }
    const bool del = DeleteDecision(rules, local, deleted, candidate, now);
    if (!candidate && !del) continue;
    Pop3DownloadJob job;
    job.number = m.number;
    job.uid = uid;
    job.size = m.size;
    job.local_key = reload ? local->key : 0;
    job.download = candidate;
    job.del = del;
    job.whole = reload || (rules.load_body_size >= 1 && m.size - 800 < rules.load_body_size);
    job.fetch_size = job.whole ? m.size : rules.load_body_size + 800;
    jobs->push_back(std::move(job));
  }
  return rc::kOk;
}

std::string Pop3UidFromHead(std::string_view head) {
  std::string id(TrimView(RawHeaderValue(head, "Message-ID")));
  if (id.size() >= 2 && id.front() == '<' && id.back() == '>') id = id.substr(1, id.size() - 2);
  if (!id.empty()) {
    for (char& c : id) {
      if (static_cast<unsigned char>(c) <= ' ' || c == 0x7F) c = '_';
    }
    return id;
  }
  const size_t end = head.find("\r\n\r\n");
  uint64_t hash = 14695981039346656037ull;  // FNV-1a
  for (const char c : head.substr(0, end)) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
  }
  char text[20];
  std::snprintf(text, sizeof text, "h%016llx", static_cast<unsigned long long>(hash));
  return text;
}

}  // namespace trv
