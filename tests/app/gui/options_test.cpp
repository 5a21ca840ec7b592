// The Options dialog's values applied at once and after a restart; each remote-content policy.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QSpinBox>

#include "app/gui/options_dialog.h"
#include "app/gui/run_commands.h"
#include "app/gui/session.h"
#include "tests/app/gui/gui_fixture.h"

namespace trv::gui {
namespace {

using GuiOptionsTest = GuiTest;

const std::string kRemote = "Content-Type: text/html\r\n\r\n<img src=\"http://127.0.0.1:9/p.png\">\r\n";

TEST_F(GuiOptionsTest, ValuesApplyAtOnceAndAfterARestart) {
  AddToInbox({Message("plain", "nothing remote"), kRemote}, 0);
  for (const bool restarted : {false, true}) {
    Session session;
    ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
    MainWindow& window = *session.window();
    auto& options = *window.findChild<OptionsCommands*>();
    options.set_exec([](OptionsDialog& dialog) {
      dialog.view_mode().setCurrentIndex(static_cast<int>(ViewMode::kTabs));
      dialog.font_size().setValue(17);
      dialog.periodic_sync().setChecked(false);
      dialog.confirm_folders().setChecked(false);
      dialog.show();
      EXPECT_TRUE(dialog.grab().save(QString(TRV_SCREENSHOT_DIR) + "/options_dialog.png"));
      return static_cast<int>(QDialog::Accepted);
    });
    if (!restarted) ASSERT_TRUE(options.Open());
    EXPECT_EQ(window.view_modes().mode(), ViewMode::kTabs);
    EXPECT_EQ(window.reading_view().font().pointSize(), 17);
    EXPECT_FALSE(window.findChild<RunCommands*>()->periodic());
    EXPECT_FALSE(options.options().confirm_delete_folders);
    if (!restarted) continue;

    ReadingView& view = window.reading_view();
    struct Row { RemotePolicy policy; bool bar, allowed; } const rows[] = {
        {RemotePolicy::kBlock, false, false}, {RemotePolicy::kAsk, true, false}, {RemotePolicy::kAllow, false, true}};
    for (const Row& row : rows) {
      SCOPED_TRACE(static_cast<int>(row.policy));
      options.set_exec([&](OptionsDialog& dialog) {
        dialog.remote_content().setCurrentIndex(static_cast<int>(row.policy));
        return static_cast<int>(QDialog::Accepted);
      });
      ASSERT_TRUE(options.Open());
      window.SelectRow(0);
      window.SelectRow(1);
      EXPECT_TRUE(view.report().remote());
      EXPECT_EQ(view.remote_bar().frame->isVisibleTo(&view), row.bar);
      EXPECT_EQ(view.remote_allowed(), row.allowed);
      EXPECT_EQ(view.toHtml().contains("127.0.0.1:9"), row.allowed);
    }
  }
}

}  // namespace
}  // namespace trv::gui
