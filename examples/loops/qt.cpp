// Qt's event loop. `loop_qt PORT CA-FILE` makes a link.

#include <QCoreApplication>
#include <QSocketNotifier>

#include "MakeLink.h"

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  QSocketNotifier queue(quorva::MainQueue::fd(), QSocketNotifier::Read);
  QObject::connect(&queue, &QSocketNotifier::activated, [] { quorva::MainQueue::drain(); });
  makeLink(argc, argv, [](int status) { QCoreApplication::exit(status); });
  return QCoreApplication::exec();
}
