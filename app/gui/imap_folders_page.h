// The account editor's Folders page of an IMAP4 account: the service's
// folder records (services/imap4_folder_sync.h) as a tree by server path,
// each with its local folder and five boxes: download, download new
// messages only, upload, delete on local (a message deleted here is deleted
// on the server) and delete on server (one deleted there is deleted here).
// "New only" needs "download": unticking download clears it.
//
// The records are read when the page is made and written back by Save
// between runs (Save refuses while a run of the account is under way: the
// run owns them then). A new account has no records until its first run
// lists the server's folders; the page says so. While a run of the account
// is under way the page shows no records (the run holds them) and says why.
//
// Threads: interface thread.
#pragma once

#include <QWidget>
#include <cstdint>
#include <map>

#include "app/gui/language.h"
#include "base/result.h"

class QTreeWidget;
class QTreeWidgetItem;

namespace trv {
class Imap4Service;
}

namespace trv::gui {

class ImapFoldersPage final : public QWidget {
  Q_OBJECT

 public:
  // The columns; the option columns carry a check box.
  enum Column { kServerPath, kLocal, kDownload, kDownloadNew, kUpload, kDeleteOnLocal, kDeleteOnServer, kCount };

  // `service` may be null (a new account): the page only says why it is empty.
  ImapFoldersPage(const LanguageTable& texts, Imap4Service* service, QWidget* parent = nullptr);

  // The options shown for each record id.
  std::map<uint32_t, uint32_t> Options() const;
  // Writes changed options into the records and saves them; FromWin32(170) (busy)
  // while a run of the account is under way; kOk when nothing changed.
  Result Save();

  QTreeWidget& tree() { return *tree_; }
  // The row of the record with that server path (as shown); null when none.
  QTreeWidgetItem* ItemOf(const QString& server_path) const;

 private:
  void ItemChanged(QTreeWidgetItem* item, int column);

  Imap4Service* service_;
  QTreeWidget* tree_;
  std::map<uint32_t, uint32_t> loaded_;  // the options as read, by record id
};

}  // namespace trv::gui
