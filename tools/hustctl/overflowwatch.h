#ifndef HUSTCTL_OVERFLOWWATCH_H
#define HUSTCTL_OVERFLOWWATCH_H

#include <QObject>

// Listens for the driver's overflow report: a screen that needs more double words than one read
// request of the controller carries. The driver refuses such reads and reports the count through
// its signal showOverflowMsg(int), which the run-time may listen to like any other signal.
class OverflowWatch : public QObject
{
    Q_OBJECT

public:
    explicit OverflowWatch(QObject *driver);

    // The count of the last report, 0 while none came.
    int count() const { return m_count; }

private slots:
    void report(int num);

private:
    int m_count = 0;
};

// Whether the process can put a window on a screen: a platform was named, or a display is there.
bool panelAvailable();

#endif // HUSTCTL_OVERFLOWWATCH_H
