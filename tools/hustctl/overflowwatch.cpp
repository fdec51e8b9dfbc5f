#include "overflowwatch.h"

OverflowWatch::OverflowWatch(QObject *driver)
{
    connect(driver, SIGNAL(showOverflowMsg(int)), this, SLOT(report(int)));
}

void OverflowWatch::report(int num)
{
    m_count = num;
}

bool panelAvailable()
{
    return qEnvironmentVariableIsSet("QT_QPA_PLATFORM") || qEnvironmentVariableIsSet("DISPLAY")
        || qEnvironmentVariableIsSet("WAYLAND_DISPLAY");
}
