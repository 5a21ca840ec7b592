#include "app/gui/view_modes.h"

#include <QAction>
#include <QActionGroup>
#include <QApplication>
#include <QDataStream>
#include <QHBoxLayout>
#include <QIODevice>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QScrollBar>
#include <QSplitter>
#include <QTabWidget>
#include <QTableView>
#include <QToolButton>
#include <QVBoxLayout>

#include "app/gui/main_window.h"
#include "base/wide_string.h"
#include "store/mail_folder.h"

namespace trv::gui {

namespace {

constexpr const char* kPageTexts[] = {"PageFolders", "PageList", "PageMessage"};

}  // namespace

ViewModes::ViewModes(MainWindow& window)
    : QStackedWidget(&window),
      window_(window),
      widgets_{&window.folder_tree(), &window.message_list(), &window.reading_view()} {
  AddActions();

  panes_ = new QSplitter(Qt::Horizontal);
  right_ = new QSplitter(Qt::Vertical);
  panes_->addWidget(right_);  // the tree goes in front of it
  panes_->setStretchFactor(0, 3);
  tabs_ = new QTabWidget;
  tabs_->setDocumentMode(true);

  single_ = new QWidget;
  auto* header = new QWidget;
  auto* back = new QToolButton;
  back->setDefaultAction(back_);
  where_ = new QLabel;
  QFont bold = where_->font();
  bold.setBold(true);
  where_->setFont(bold);
  auto* header_row = new QHBoxLayout(header);
  header_row->setContentsMargins(4, 2, 4, 2);
  header_row->addWidget(back);
  header_row->addWidget(where_, 1);
  pages_ = new QStackedWidget;
  auto* column = new QVBoxLayout(single_);
  column->setContentsMargins(0, 0, 0, 0);
  column->setSpacing(0);
  column->addWidget(header);
  column->addWidget(pages_, 1);

  addWidget(panes_);
  addWidget(tabs_);
  addWidget(single_);
  window.setCentralWidget(this);

  FolderTree& tree = window.folder_tree();
  QTableView& list = window.message_list();
  const auto plain_click = [this] {
    return mode_ != ViewMode::kThreePanes && QApplication::keyboardModifiers() == Qt::NoModifier;
  };
  connect(&tree, &QTreeWidget::itemActivated, this, [this](QTreeWidgetItem* item) {
    if (FolderTree::FolderOf(item) != nullptr) ShowPage(ViewPage::kList);
  });
  connect(&tree, &QTreeWidget::itemClicked, this, [this, plain_click](QTreeWidgetItem* item) {
    if (plain_click() && FolderTree::FolderOf(item) != nullptr) ShowPage(ViewPage::kList);
  });
  connect(&list, &QAbstractItemView::activated, this, [this] { ShowPage(ViewPage::kMessage); });
  connect(&list, &QAbstractItemView::clicked, this, [this, plain_click] {
    if (plain_click()) ShowPage(ViewPage::kMessage);
  });
  connect(&tree, &QTreeWidget::currentItemChanged, this, [this] { PageChanged(); });
  connect(list.selectionModel(), &QItemSelectionModel::currentRowChanged, this, [this] { PageChanged(); });
  connect(tabs_, &QTabWidget::currentChanged, this, [this] { PageChanged(); });
  connect(pages_, &QStackedWidget::currentChanged, this, [this] { PageChanged(); });
  list.installEventFilter(this);
  window.reading_view().installEventFilter(this);

  // Three panes until the options say otherwise.
  panes_->insertWidget(0, &tree);
  right_->addWidget(&list);
  right_->addWidget(&window.reading_view());
  mode_actions_[0]->setChecked(true);
  PageChanged();
}

ViewModes::~ViewModes() {
  // The widgets (and the containers, deleted after this body) outlive this
  // object's own part; they must not call it any more.
  const auto* list = static_cast<QTableView*>(widgets_[1]);
  for (QObject* sender : {static_cast<QObject*>(widgets_[0]), static_cast<QObject*>(widgets_[1]),
                          static_cast<QObject*>(list->selectionModel()), static_cast<QObject*>(tabs_),
                          static_cast<QObject*>(pages_)}) {
    if (sender != nullptr) sender->disconnect(this);
  }
  for (QWidget* widget : widgets_) widget->removeEventFilter(this);
}

void ViewModes::AddActions() {
  const LanguageTable& texts = window_.texts();
  QMenu* menu = window_.menu(MainWindow::Menu::kView);
  const auto text = [&texts](const char* id) { return QString::fromStdString(texts.Text(id)); };

  auto* group = new QActionGroup(this);
  group->setExclusive(true);
  static constexpr const char* kModeTexts[] = {"ViewThreePanes", "ViewTabs", "ViewSinglePage"};
  for (uint32_t i = 0; i < kViewModeCount; ++i) {
    QAction* action = menu->addAction(text(kModeTexts[i]));
    action->setCheckable(true);
    group->addAction(action);
    connect(action, &QAction::triggered, this, [this, i] { SetMode(static_cast<ViewMode>(i)); });
    mode_actions_[i] = action;
  }
  menu->addSeparator();

  back_ = menu->addAction(text("ViewBack"));
  back_->setShortcuts({QKeySequence(Qt::Key_Backspace), QKeySequence(Qt::Key_Escape), QKeySequence(Qt::ALT | Qt::Key_Left)});
  connect(back_, &QAction::triggered, this, [this] { Back(); });

  static constexpr const char* kGoTexts[] = {"ViewGoFolders", "ViewGoList", "ViewGoMessage"};
  static constexpr Qt::Key kGoKeys[] = {Qt::Key_1, Qt::Key_2, Qt::Key_3};
  for (int i = 0; i < 3; ++i) {
    QAction* go = menu->addAction(text(kGoTexts[i]));
    go->setShortcut(QKeySequence(Qt::CTRL | kGoKeys[i]));
    connect(go, &QAction::triggered, this, [this, i] { ShowPage(static_cast<ViewPage>(i)); });
  }
  QAction* next = menu->addAction(text("ViewNextPane"));
  next->setShortcut(QKeySequence(Qt::Key_F6));
  connect(next, &QAction::triggered, this, [this] { Cycle(1); });
  QAction* previous = menu->addAction(text("ViewPreviousPane"));
  previous->setShortcut(QKeySequence(Qt::SHIFT | Qt::Key_F6));
  connect(previous, &QAction::triggered, this, [this] { Cycle(-1); });
}

QWidget* ViewModes::WidgetOf(ViewPage page) const { return widgets_[static_cast<int>(page)]; }

void ViewModes::SetMode(ViewMode mode) {
  if (mode == mode_ || static_cast<uint32_t>(mode) >= kViewModeCount) return;
  const ViewPage keep = page();
  if (mode_ == ViewMode::kThreePanes) panes_state_ = SavePanes();
  // Out of the old arrangement (the splitters let go when a widget moves).
  while (tabs_->count() > 0) tabs_->removeTab(0);
  while (pages_->count() > 0) pages_->removeWidget(pages_->widget(0));

  const LanguageTable& texts = window_.texts();
  mode_ = mode;
  switch (mode) {
    case ViewMode::kThreePanes:
      panes_->insertWidget(0, WidgetOf(ViewPage::kFolders));
      right_->addWidget(WidgetOf(ViewPage::kList));
      right_->addWidget(WidgetOf(ViewPage::kMessage));
      for (int i = 0; i < 3; ++i) WidgetOf(static_cast<ViewPage>(i))->show();
      RestorePanes(panes_state_);
      break;
    case ViewMode::kTabs:
      for (int i = 0; i < 3; ++i) {
        tabs_->addTab(WidgetOf(static_cast<ViewPage>(i)), QString::fromStdString(texts.Text(kPageTexts[i])));
      }
      break;
    case ViewMode::kSinglePage:
      for (int i = 0; i < 3; ++i) pages_->addWidget(WidgetOf(static_cast<ViewPage>(i)));
      break;
  }
  setCurrentIndex(static_cast<int>(mode));
  mode_actions_[static_cast<int>(mode)]->setChecked(true);
  ShowPage(keep);
}

void ViewModes::ShowPage(ViewPage page) {
  if (mode_ == ViewMode::kTabs) tabs_->setCurrentIndex(static_cast<int>(page));
  if (mode_ == ViewMode::kSinglePage) pages_->setCurrentIndex(static_cast<int>(page));
  WidgetOf(page)->setFocus(Qt::OtherFocusReason);
  PageChanged();
}

ViewPage ViewModes::page() const {
  if (mode_ == ViewMode::kTabs) return static_cast<ViewPage>(std::max(tabs_->currentIndex(), 0));
  if (mode_ == ViewMode::kSinglePage) return static_cast<ViewPage>(std::max(pages_->currentIndex(), 0));
  // The window's focus widget is kept while the window is not active.
  const QWidget* focus = window_.focusWidget();
  for (int i = 0; i < 3; ++i) {
    const QWidget* widget = WidgetOf(static_cast<ViewPage>(i));
    if (focus != nullptr && (focus == widget || widget->isAncestorOf(focus))) return static_cast<ViewPage>(i);
  }
  return ViewPage::kList;
}

void ViewModes::Back() {
  if (mode_ == ViewMode::kThreePanes || page() == ViewPage::kFolders) return;
  ShowPage(static_cast<ViewPage>(static_cast<int>(page()) - 1));
}

void ViewModes::Cycle(int step) { ShowPage(static_cast<ViewPage>((static_cast<int>(page()) + step + 3) % 3)); }

QString ViewModes::where() const { return where_->text(); }

void ViewModes::PageChanged() {
  const LanguageTable& texts = window_.texts();
  QString folder_text = QString::fromStdString(texts.Text(kPageTexts[1]));
  if (const MailFolder* folder = FolderTree::FolderOf(window_.folder_tree().currentItem())) {
    folder_text = QString::fromStdString(WideToUtf8(folder->name()));
  }
  QString message_text = QString::fromStdString(texts.Text(kPageTexts[2]));
  const QModelIndex current = window_.message_list().currentIndex();
  if (current.isValid()) {
    const QString subject = current.siblingAtColumn(MessageListModel::kSubject).data().toString();
    if (!subject.isEmpty()) message_text = subject;
  }
  if (tabs_->count() == 3) tabs_->setTabText(1, folder_text);
  const QString texts_by_page[] = {QString::fromStdString(texts.Text(kPageTexts[0])), folder_text, message_text};
  where_->setText(texts_by_page[std::max(pages_->currentIndex(), 0)]);
  back_->setEnabled(mode_ != ViewMode::kThreePanes && page() != ViewPage::kFolders);
}

QByteArray ViewModes::SavePanes() const {
  if (mode_ != ViewMode::kThreePanes) return panes_state_;
  QByteArray state;
  QDataStream out(&state, QIODevice::WriteOnly);
  out << panes_->saveState() << right_->saveState();
  return state;
}

void ViewModes::RestorePanes(const QByteArray& state) {
  panes_state_ = state;
  if (mode_ != ViewMode::kThreePanes || state.isEmpty()) return;
  QByteArray outer;
  QByteArray inner;
  QDataStream in(state);
  in >> outer >> inner;
  if (in.status() != QDataStream::Ok) return;  // not ours: the default division stays
  panes_->restoreState(outer);
  right_->restoreState(inner);
}

bool ViewModes::eventFilter(QObject* watched, QEvent* event) {
  if (event->type() != QEvent::KeyPress) return false;
  const auto* key = static_cast<QKeyEvent*>(event);
  if ((key->modifiers() & ~Qt::KeypadModifier) != Qt::NoModifier) return false;
  const int rows = window_.message_model().rowCount();
  if (watched == &window_.message_list() && (key->key() == Qt::Key_Home || key->key() == Qt::Key_End)) {
    if (rows > 0) window_.SelectRow(key->key() == Qt::Key_Home ? 0 : rows - 1);
    return true;
  }
  if (watched == &window_.reading_view() && key->key() == Qt::Key_Space) {
    QScrollBar* bar = window_.reading_view().verticalScrollBar();
    const int row = window_.message_list().currentIndex().row();
    if (bar->value() < bar->maximum()) {
      bar->triggerAction(QAbstractSlider::SliderPageStepAdd);
    } else if (row >= 0 && row + 1 < rows) {
      window_.SelectRow(row + 1);
    }
    return true;
  }
  return false;
}

}  // namespace trv::gui
