// What a POP3 run does with each message of the maildrop: download it
// (whole or partially), delete it on the server, or leave it alone. A pure
// function of the server's list, what the inbox already holds, the record of
// locally deleted messages and the account's limits and delete rules; the
// only way out is the head reader, through which the run sends TOP n 0 in
// header mode.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace trv {

// One entry of LIST and UIDL, in server order.
struct Pop3ServerMessage {
  int32_t number = 0;
  int32_t size = 0;
  std::string uid;  // empty when UIDL failed
};

// The inbox's copy of a message, found by its UID.
struct Pop3LocalCopy {
  uint32_t key = 0;
  double date = 0;  // when it arrived here (record date unit: days)
  bool partial = false;
  bool full_download_requested = false;
};

struct Pop3Rules {
  int32_t load_max_size = 2147483647;  // a candidate's size is below it
  int32_t load_last_days = 2147483647;
  int32_t load_body_size = 2048;
  bool delete_on_server = false;
  int32_t delete_after_days = 2147483647;
  bool delete_after_local_deletion = false;
  bool header_mode = false;  // UIDL failed, or load_last_days is set
};

struct Pop3DownloadJob {
  int32_t number = 0;
  std::string uid;
  int32_t size = 0;
  int32_t fetch_size = 0;
  uint32_t local_key = 0;  // the local message to load again whole; 0: a new one
  bool download = false;
  bool del = false;
  bool whole = false;
  // TOP's line count for a partial download: the body lines that fit
  // (LoadBodySize / 40; 51 for 2048; 0 for headers only).
  uint32_t top_lines() const { return fetch_size > 800 ? static_cast<uint32_t>(fetch_size - 800) / 40 : 0; }
};

// What TOP n 0 told about a message.
struct Pop3Head {
  std::string uid;  // derived from the header (Pop3UidFromHead)
  double sent_date = 0;
};

struct Pop3PlanSources {
  std::function<std::optional<Pop3LocalCopy>(std::string_view uid)> local;
  // The date of the local deletion of that UID, if it was deleted here.
  std::function<std::optional<double>(std::string_view uid)> deleted;
  // Header mode: TOP number 0. A failure (or rc::kAbort) ends the planning
  // with that code. Told (index, count - 1) for event 8 first.
  std::function<Result(int32_t number, Pop3Head* head)> read_head;
  std::function<void(size_t index, size_t last)> progress;
};

// A partially loaded message is loaded again whole only when the user asked
// for the rest (services/full_download.h); every other local copy stays.
bool NeedsReload(const Pop3LocalCopy& local);

// The jobs in server order. Rules beyond the plain limits, kept on purpose:
// a message is deleted on the server only when a whole copy is here (stored
// before, or downloaded by this run) or the user deleted it here, so a
// message skipped by a limit, or held here only partially, stays on the
// server whatever DeleteOnServer says.
Result PlanPop3Jobs(const std::vector<Pop3ServerMessage>& list, const Pop3Rules& rules, double now,
                    const Pop3PlanSources& sources, std::vector<Pop3DownloadJob>* jobs);

// A UID for a server without UIDL: the Message-ID (without brackets, blanks
// and controls turned into "_"), else "h" and 16 hexadecimal digits of a
// hash of the header block.
std::string Pop3UidFromHead(std::string_view head);

}  // namespace trv
