// A new folder file in a temporary directory, committing without syncing.
#pragma once

#include <gtest/gtest.h>

#include "base/log_sink.h"
#include "store/folder_file.h"
#include "tests/support/temp_dir.h"

namespace trv::test {

struct ScratchFolder {
  static FolderFileOptions Options() {
    FolderFileOptions options;
    options.sync_commits = false;
    return options;
  }
  ScratchFolder() { EXPECT_TRUE(file.Create(dir / "f.fld").ok()); }

  TempDir dir;
  NullLogSink log;
  FolderFile file{log, Options()};
};

}  // namespace trv::test
