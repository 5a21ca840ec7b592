#include <gtest/gtest.h>

#include <sys/stat.h>

#include <QBuffer>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStatusBar>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTreeWidget>
#include <fstream>

#include "app/gui/attachment_list.h"
#include "app/gui/compose_window.h"
#include "app/gui/reading_window.h"
#include "app/gui/session.h"
#include "base/file_io.h"
#include "tests/app/gui/gui_fixture.h"

namespace trv::gui {
namespace {

class GuiReadingTest : public GuiTest {
 protected:
  // Starts a session on the Inbox holding `texts`; the last one gets `flags`.
  MainWindow& Start(const std::vector<std::string>& texts, uint32_t flags = 0, uint32_t server_size = 0) {
    std::vector<std::string> first(texts.begin(), texts.end() - 1);
    AddToInbox(first, 0);
    EXPECT_TRUE(session_.Start({TRVMAIL_DIR, data_dir(), "", {}}));
    MessageListModel& model = session_.window()->message_model();
    MessageRecord record = RecordFromMessage(texts.back());
    record.flags |= flags;
    record.server_size = server_size;
    EXPECT_FALSE(model.folder()->file()->Append(record, texts.back(), &last_key_).failed());
    EXPECT_TRUE(QTest::qWaitFor([&] { return model.rowCount() == static_cast<int>(texts.size()); }, 5000));
    return *session_.window();
  }
  Session session_;
  uint32_t last_key_ = 0;
};

std::string Png() {
  QByteArray png;
  QBuffer buffer(&png);
  buffer.open(QIODevice::WriteOnly);
  QImage(3, 2, QImage::Format_RGB32).save(&buffer, "PNG");
  return png.toStdString();
}

std::string Html(const std::string& body, const std::string& more = "") {
  return "Subject: html\r\nMIME-Version: 1.0\r\nContent-Type: text/html\r\n" + more + "\r\n" + body + "\r\n";
}

TEST_F(GuiReadingTest, RemotePicturesScriptsAndHandlersAreRemovedUntilAllowedForThatMessage) {
  QTcpServer server;  // serves one picture to whoever asks
  ASSERT_TRUE(server.listen(QHostAddress::LocalHost));
  QObject::connect(&server, &QTcpServer::newConnection, [&] {
    QTcpSocket* client = server.nextPendingConnection();
    QObject::connect(client, &QTcpSocket::readyRead, [client] {
      const std::string png = Png();
      client->write(("HTTP/1.1 200 OK\r\nContent-Type: image/png\r\nContent-Length: " + std::to_string(png.size()) +
                     "\r\nConnection: close\r\n\r\n" + png).c_str(), static_cast<qint64>(png.size()) + 99);
      client->disconnectFromHost();
    });
  });
  const QString url = QString("http://127.0.0.1:%1/p.png").arg(server.serverPort());
  MainWindow& window = Start({Message("plain", "nothing remote"),
                              Html("<p onclick=\"steal()\">hi<script>steal()</script><img src=\"" + url.toStdString() +
                                   "\"><IMG SRC=\"JaVa&#x53;cript:steal()\"></p>")});
  ReadingView& view = window.reading_view();
  window.SelectRow(1);
  EXPECT_TRUE(view.remote_bar().frame->isVisibleTo(&view));
  EXPECT_EQ(view.remote_bar().label->text(), "Remote pictures were blocked to protect your privacy.");
  for (const QString& gone : {url, QString("steal"), QString("onclick")}) EXPECT_FALSE(view.toHtml().contains(gone)) << gone.toStdString();
  EXPECT_TRUE(view.toPlainText().contains("hi"));

  view.remote_bar().button->click();
  EXPECT_FALSE(view.remote_bar().frame->isVisibleTo(&view));
  EXPECT_TRUE(view.toHtml().contains(url));
  EXPECT_FALSE(view.toHtml().contains("steal"));
  EXPECT_TRUE(QTest::qWaitFor([&] { return !view.loadResource(QTextDocument::ImageResource, QUrl(url)).isNull(); }, 5000));
  EXPECT_EQ(view.loadResource(QTextDocument::ImageResource, QUrl(url)).value<QImage>().size(), QSize(3, 2));

  // Only for that message: shown again, it is blocked again.
  window.SelectRow(0);
  EXPECT_FALSE(view.remote_bar().frame->isVisibleTo(&view));
  window.SelectRow(1);
  EXPECT_TRUE(view.remote_bar().frame->isVisibleTo(&view));
  EXPECT_FALSE(view.toHtml().contains(url));
}

TEST_F(GuiReadingTest, HostileHtmlIsShownCutWithALineSayingSo) {
  std::string cells;
  for (int i = 0; i < 20000; ++i) cells += "<td>" + std::to_string(i);
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<div>";
  const struct {
    const char* name;
    std::string html;
    const char* shown;
    bool cut;
  } rows[] = {
      {"deep nesting", deep + "deep", "deep", true},
      {"megabyte attribute", "<p title=\"" + std::string(1 << 20, 'x') + "\">after</p>", "after", false},
      {"20000 cells", "<table><tr>" + cells + "</table>", "1999", true},
  };
  MainWindow& window = Start({Html(rows[0].html), Html(rows[1].html), Html(rows[2].html)});
  for (int row = 0; row < 3; ++row) {
    window.SelectRow(row);
    const QString shown = window.reading_view().toPlainText();
    EXPECT_EQ(shown.contains("The rest of this message is not shown"), rows[row].cut) << rows[row].name;
    EXPECT_TRUE(shown.contains(rows[row].shown)) << rows[row].name;
    EXPECT_FALSE(shown.contains("xxxx")) << rows[row].name;
  }
}

TEST_F(GuiReadingTest, AttachmentIsListedAndSavedByteForByteAs0600) {
  std::string bytes;
  for (int i = 0; i < 512; ++i) bytes += static_cast<char>(i * 7);
  const std::string text = "Subject: att\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
                           "--b\r\nContent-Type: text/plain\r\n\r\nsee attached\r\n--b\r\nContent-Type: "
                           "application/octet-stream; name=\"../data.bin\"\r\nContent-Disposition: attachment\r\n"
                           "Content-Transfer-Encoding: base64\r\n\r\n" +
                           QByteArray::fromStdString(bytes).toBase64().toStdString() + "\r\n--b--\r\n";
  MainWindow& window = Start({text});
  window.SelectRow(0);
  AttachmentList& list = window.reading_view().attachments();
  ASSERT_EQ(list.count(), 1);
  EXPECT_EQ(list.list().topLevelItem(0)->text(0), "data.bin");
  EXPECT_EQ(list.list().topLevelItem(0)->text(1), "application/octet-stream");
  const std::filesystem::path path = dir_.path() / "saved.bin";
  std::ofstream(path) << "older and longer content than nothing";
  ::chmod(path.c_str(), 0644);
  list.SetSaveQuestion([&](const QString& suggested) {
    EXPECT_TRUE(suggested.endsWith("/data.bin"));
    return QString::fromStdString(path.string());
  });
  ASSERT_FALSE(list.SaveAs(0).failed());
  std::string saved;
  ASSERT_FALSE(ReadWholeFile(path, &saved).failed());
  EXPECT_EQ(saved, bytes);
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(GuiReadingTest, PartialMessageBarMarksItForCompletion) {
  MainWindow& window = Start({Message("head only", "first lines")}, msgflag::kPartial, 90000);
  window.SelectRow(0);
  ReadingView& view = window.reading_view();
  ASSERT_TRUE(view.partial_bar().frame->isVisibleTo(&view));
  EXPECT_TRUE(view.partial_bar().label->text().contains("of 90000 bytes"));
  std::pair<MailFolder*, uint32_t> asked{};
  QObject::connect(&view, &ReadingView::fetchRequested, [&](MailFolder* f, uint32_t k) { asked = {f, k}; });
  view.partial_bar().button->click();
  EXPECT_EQ(asked, std::make_pair(window.message_model().folder(), last_key_));
  EXPECT_TRUE(window.message_model().folder()->file()->FindMessage(last_key_)->flags & msgflag::kFullDownloadRequested);
  EXPECT_FALSE(view.partial_bar().button->isVisibleTo(&view));
}

TEST_F(GuiReadingTest, MessageFileShownInAReadingWindowAndNonMailRefusedByName) {
  const std::filesystem::path eml = dir_.path() / "letter.eml";
  std::ofstream(eml) << "From: Bob <bob@example.org>\r\nSubject: From a file\r\nMIME-Version: 1.0\r\n"
                        "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\nContent-Type: text/html\r\n\r\n"
                        "<h3>Hello</h3><p>Read <a href=\"https://example.org/\">this</a>.<img src=\"https://t.example/"
                        "p.gif\"></p>\r\n--b\r\nContent-Type: application/pdf; name=report.pdf\r\n\r\n%PDF-1.4\r\n--b--\r\n";
  std::ofstream(dir_.path() / "empty.eml");
  std::ofstream(dir_.path() / "junk.eml") << std::string("\x7f" "ELF\0\0\x01", 7);
  std::ofstream(dir_.path() / "prose.eml") << "Dear Bob,\nthis is no mail.\n";
  const struct {
    const char* file;
    const char* cause;
  } refused[] = {{"missing.eml", ""}, {"empty.eml", "empty"}, {"junk.eml", "binary"}, {"prose.eml", "header lines"}};
  LanguageTable texts;
  ASSERT_FALSE(texts.Load(LanguageTable::Locate(TRVMAIL_DIR)).failed());
  for (const auto& row : refused) {
    ReadingWindow window(texts);
    QString problem;
    EXPECT_FALSE(window.Open(dir_.path() / row.file, &problem)) << row.file;
    EXPECT_TRUE(problem.contains(QString::fromStdString((dir_.path() / row.file).string()))) << problem.toStdString();
    EXPECT_TRUE(problem.contains(row.cause)) << problem.toStdString();
  }
  EXPECT_FALSE(std::filesystem::exists(data_dir()));  // nothing written

  EXPECT_EQ(MessageFileOf("\"" + QString::fromStdString(eml.string()) + "\""), eml);
  EXPECT_FALSE(MessageFileOf("mailto:b@c.d") || MessageFileOf("-uninstall") || MessageFileOf(" "));
  MainWindow& main = Start({Message("inbox", "body")});
  main.Activate(QString::fromStdString(eml.string()));  // as handed over by a later start
  const QList<ReadingWindow*> windows = main.findChildren<ReadingWindow*>();
  ASSERT_EQ(windows.size(), 1);
  ReadingWindow& shown = *windows.front();
  EXPECT_EQ(shown.windowTitle(), "From a file - Tarvo Mail");
  EXPECT_TRUE(shown.view().toPlainText().contains("Read this."));
  EXPECT_EQ(shown.view().attachments().count(), 1);
  EXPECT_TRUE(shown.view().remote_bar().frame->isVisibleTo(&shown));
  emit shown.view().anchorClicked(QUrl("mailto:b@c.d"));  // opens a compose window over the main window
  ASSERT_NE(main.findChild<ComposeWindow*>(), nullptr);
  EXPECT_EQ(main.findChild<ComposeWindow*>()->to().text(), "b@c.d");
  QApplication::processEvents();
  ASSERT_TRUE(shown.grab().save(QString(TRV_SCREENSHOT_DIR) + "/reading_window.png"));
}

}  // namespace
}  // namespace trv::gui
