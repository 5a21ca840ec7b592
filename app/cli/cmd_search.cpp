// search: the messages that match a query, from the search database.
#include <map>

#include "app/cli/commands.h"
#include "app/cli/listing.h"
#include "core/engine.h"
#include "core/search_index.h"
#include "store/mail_folder.h"

namespace trv::cli {

int RunSearch(CliContext& ctx, const ParsedArgs& args) {
  std::string query;
  for (const std::string& word : args.positional) query += (query.empty() ? "" : " ") + word;
  const MailFolder* under = nullptr;
  if (args.has("--folder")) {
    int status = kExitOk;
    under = FindFolderOrFail(ctx, args.value("--folder"), &status);
    if (under == nullptr) return status;
  }
  const std::vector<SearchFolder> folders = SearchFoldersOf(ctx.engine->storages(), under);
  SearchIndex index(ctx.engine->activity_log());
  if (Result r = index.Open(ctx.engine->data_directory() / SearchIndex::kFileName); r.failed()) {
    return Fail(ctx, "cannot open the search database", r);
  }
  std::vector<SearchHit> hits;
  {
    ProgressLine progress(ctx);
    const SearchProgress told = [&progress](size_t done, size_t total) {
      progress.Update("indexing " + std::to_string(done) + " of " + MessageCount(total), done == total);
    };
    if (Result r = index.Search(query, folders, under == nullptr, told, &hits); r.failed()) {
      return Fail(ctx, "cannot search", r);
    }
  }
  // The records as the folder files hold them now; a hit deleted meanwhile
  // is left out.
  std::vector<std::pair<size_t, MessageRecord>> found;
  for (const SearchHit& hit : hits) {
    if (std::optional<MessageRecord> record = folders[hit.folder].file->FindMessage(hit.key)) {
      found.emplace_back(hit.folder, std::move(*record));
    }
  }
  if (ctx.json) {
    std::string out = "[";
    for (size_t i = 0; i < found.size(); ++i) {
      if (i > 0) out += ',';
      AppendRecordJson(found[i].second, &out, FolderPathText(*folders[found[i].first].folder));
    }
    WriteOut(ctx, out + "]\n");
    return kExitOk;
  }
  // One table per folder, newest first within it.
  std::map<size_t, std::vector<MessageRecord>> by_folder;
  for (auto& [folder, record] : found) by_folder[folder].push_back(std::move(record));
  std::string out;
  for (const auto& [folder, records] : by_folder) {
    if (!out.empty()) out += '\n';
    out += FolderPathText(*folders[folder].folder) + ": " + MessageCount(records.size()) + "\n";
    out += ListingText(records);
  }
  if (found.empty()) out = "no messages found\n";
  WriteOut(ctx, out);
  return kExitOk;
}

}  // namespace trv::cli
