#include "screencontroller.h"

#include <QCoreApplication>
#include <QVariant>

ScreenController::ScreenController(int width, int height, QObject *parent)
    : QObject(parent)
    , m_width(width)
    , m_height(height)
{ }

void ScreenController::publish(QCoreApplication *app)
{
    app->setProperty("ScreenController",
                     QVariant::fromValue(quintptr(static_cast<QObject *>(this))));
}

QList<ScreenController::Placement> ScreenController::shown() const
{
    QList<Placement> live;
    for (const Placement &p : m_shown) {
        if (p.widget)
            live.append(p);
    }
    return live;
}

void ScreenController::addZTDiaolg(QWidget *widget, QPoint position, bool modal)
{
    if (!widget)
        return;
    ++m_added;
    m_shown.append({widget, position, modal});
}

void ScreenController::removeWidget(QWidget *widget)
{
    for (int i = m_shown.size() - 1; i >= 0; --i) {
        if (m_shown.at(i).widget == widget || !m_shown.at(i).widget)
            m_shown.removeAt(i);
    }
}
