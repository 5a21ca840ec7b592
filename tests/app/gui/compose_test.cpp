// The compose window without servers: a draft saved, replaced and opened
// again from "Drafts"; refusals at the field that queue nothing; a message
// queued in the account's character set.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QTableView>
#include <QTest>
#include <fstream>

#include "app/gui/attachment_editor.h"
#include "app/gui/compose_window.h"
#include "app/gui/session.h"
#include "app/gui/user_questions.h"
#include "services/service_registry.h"
#include "store/storage.h"
#include "tests/app/gui/gui_fixture.h"

namespace trv::gui {
namespace {

struct Answers final : UserQuestions {
  bool yes = false;
  QStringList told;
  bool Confirm(QWidget*, const QString&, const QString&) override { return yes; }
  void Tell(QWidget*, const QString&, const QString& text) override { told << text; }
};

class GuiComposeTest : public GuiTest {
 protected:
  void SetUp() override {
    MailEngine* engine = AcquireEngine();
    engine->SetDataDirectoryOverride(data_dir());
    InstallServiceFactory(*engine);
    ASSERT_FALSE(engine->Start("").failed());
    ServiceSettings s;
    s.service_name = u"Ann", s.user_real_name = u"Ann Example", s.email_address = u"ann@example.org";
    s.smtp.host = "127.0.0.1", s.sending_charset = "iso-8859-1";
    s.add_signature = true, s.signature = u"Ann\nexample.org";
    ASSERT_EQ(CreateService(*engine, "POP3", s, nullptr), rc::kOk);
    ReleaseEngine();
    ASSERT_TRUE(session_.Start({TRVMAIL_DIR, data_dir(), "", {}}));
    service_ = FindService(*session_.engine(), "Ann");
  }
  ComposeWindow* Open(const ComposedMessage& initial) {
    ComposeWindow* w = OpenCompose(*session_.window(), initial);
    w->SetQuestions(&answers_);
    return w;
  }
  std::vector<MessageRecord> Folder(uint32_t kind) {
    return service_->storage().SpecialFolder(kind)->file()->Messages();
  }
  QString File(const char* name, const std::string& bytes) {
    std::ofstream(dir_.path() / name, std::ios::binary) << bytes;
    return QString::fromStdString((dir_.path() / name).string());
  }
  Session session_;
  MailService* service_ = nullptr;
  Answers answers_;
};

TEST_F(GuiComposeTest, DraftSavedReplacedAndReopenedFromDrafts) {
  ComposedMessage initial;
  initial.to = u"Bob <bob@example.org>", initial.subject = u"Plans";
  initial.parts.bodies.push_back({u"Hello Bob,", false});
  ComposeWindow* w = Open(initial);
  EXPECT_EQ(w->body().toPlainText(), "Hello Bob,\n-- \nAnn\nexample.org");
  const std::string bytes("PK\x03\x04\0\xff binary", 15);
  ASSERT_TRUE(w->AddFiles({File("plan.zip", bytes)}, false));
  w->cc().setText("carl@example.org");
  w->priority().setCurrentIndex(2);
  ASSERT_EQ(w->SaveDraft(), rc::kOk);
  w->subject().setText("Plans, again");
  ASSERT_EQ(w->SaveDraft(), rc::kOk);
  ASSERT_EQ(Folder(kFolderDrafts).size(), 1u) << "the second save replaces the first";
  QApplication::processEvents();
  EXPECT_TRUE(w->grab().save(QString(TRV_SCREENSHOT_DIR) + "/compose_window.png"));
  w->close();
  QApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);

  MainWindow& main = *session_.window();
  ASSERT_TRUE(main.SelectFolder(service_->storage().SpecialFolder(kFolderDrafts)));
  ASSERT_TRUE(QTest::qWaitFor([&] { return main.message_model().rowCount() == 1; }, 5000));
  main.SelectRow(0);
  emit main.message_list().activated(main.message_list().currentIndex());
  const QList<ComposeWindow*> windows = main.findChildren<ComposeWindow*>();
  ASSERT_EQ(windows.size(), 1);
  ComposeWindow& again = *windows.front();
  EXPECT_EQ(again.to().text(), "Bob <bob@example.org>");
  EXPECT_EQ(again.cc().text(), "carl@example.org");
  EXPECT_EQ(again.subject().text(), "Plans, again");
  EXPECT_EQ(again.priority().currentIndex(), 2);
  EXPECT_EQ(again.body().toPlainText(), "Hello Bob,\n-- \nAnn\nexample.org") << "no second signature";
  ASSERT_EQ(again.attachments().attachments().size(), 1u);
  EXPECT_EQ(again.attachments().attachments()[0].data, bytes);
  EXPECT_EQ(again.draft_key(), Folder(kFolderDrafts)[0].key);
}

TEST_F(GuiComposeTest, RefusalsAtTheFieldQueueNothingAndAGoodMessageGoesOut) {
  ComposedMessage initial;
  initial.to = u"bob@example.org", initial.subject = u"Caf\u00e9";
  ComposeWindow* w = Open(initial);
  ASSERT_TRUE(w->AddFiles({File("notes.txt", "notes\n")}, false));
  struct Row {
    const char *to, *cc, *subject;
    bool remove_file;
    Result want;
    const char* told;  // part of what the person is told; empty: nothing
  };
  const Row rows[] = {
      {"b@x.org", "Carl", "S", false, rc::kInvalidArg, "Cc field holds an address that cannot be read: \"Carl\""},
      {"bob@", "", "S", false, rc::kInvalidArg, "To field holds an address that cannot be read: \"bob@\""},
      {"", " ", "S", false, rc::kInvalidArg, "no recipient"},
      {"bob@example.org", "", "", false, rc::kAbort, ""},
      {"bob@example.org", "", "S", true, ResultFromErrno(ENOENT), "notes.txt"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.to + std::string("|") + row.cc);
    answers_.told.clear();
    w->to().setText(row.to), w->cc().setText(row.cc), w->subject().setText(row.subject);
    if (row.remove_file) std::filesystem::remove(dir_.path() / "notes.txt");
    EXPECT_EQ(w->Send(), row.want);
    const QString told = answers_.told.join("|");
    EXPECT_TRUE(*row.told ? told.contains(row.told) : told.isEmpty()) << told.toStdString();
    EXPECT_TRUE(Folder(kFolderOutbox).empty());
    EXPECT_TRUE(w->isVisible());
  }
  w->attachments().selectAll();
  EXPECT_EQ(w->attachments().RemoveSelected(), 1);
  w->subject().setText(QString::fromUtf16(u"Caf\u00e9"));
  w->send_at_once().setChecked(false);
  QPointer<ComposeWindow> gone(w);
  ASSERT_EQ(w->Send(), rc::kOk);
  EXPECT_TRUE(QTest::qWaitFor([&] { return gone.isNull(); }, 5000));
  ASSERT_EQ(Folder(kFolderOutbox).size(), 1u);
  std::string text;
  FolderFile& outbox = *service_->storage().SpecialFolder(kFolderOutbox)->file();
  ASSERT_EQ(outbox.ReadMessage(outbox.Messages()[0].key, &text), rc::kOk);
  EXPECT_NE(text.find("Subject: =?iso-8859-1?"), std::string::npos) << text;
  EXPECT_NE(text.find("From: \"Ann Example\" <ann@example.org>"), std::string::npos) << text;
}

}  // namespace
}  // namespace trv::gui
