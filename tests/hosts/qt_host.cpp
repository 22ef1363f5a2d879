// A host with a Qt window. The library's callbacks come by Qt's own loop, which stands on GLib.

#include <QApplication>
#include <QWidget>

#include "tests/hosts/Probe.h"

int main(int count, char** arguments) {
  QApplication application(count, arguments);
  QWidget window;
  window.show();
  return quillmere::testing::probe(
      {.run = [] { QApplication::exec(); }, .quit = [] { QApplication::quit(); }});
}
