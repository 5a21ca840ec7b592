#include <gtest/gtest.h>

#include <QApplication>

// The application object lives on main's stack: one destroyed among the
// static objects at exit would outlive Qt's own and crash.
int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  return RUN_ALL_TESTS();
}
