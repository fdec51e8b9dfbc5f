#ifndef SCREENCONTROLLER_H
#define SCREENCONTROLLER_H

#include <QList>
#include <QObject>
#include <QPoint>
#include <QPointer>
#include <QWidget>

class QCoreApplication;

// Stand-in for the run-time's screen controller: it knows the panel's size and takes global
// dialogs that drivers put on the panel. Drivers find it through the application object's
// property "ScreenController", which holds the object's address as a pointer-sized integer.
class ScreenController : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int panelWidth READ panelWidth WRITE setPanelWidth)
    Q_PROPERTY(int panelHeight READ panelHeight WRITE setPanelHeight)

public:
    struct Placement
    {
        QPointer<QWidget> widget;
        QPoint position;
        bool modal;
    };

    explicit ScreenController(int width = 800, int height = 480, QObject *parent = nullptr);

    int panelWidth() const { return m_width; }
    void setPanelWidth(int width) { m_width = width; }
    int panelHeight() const { return m_height; }
    void setPanelHeight(int height) { m_height = height; }

    // Sets the application's "ScreenController" property to this object.
    void publish(QCoreApplication *app);
    // The dialogs the panel shows now, in the order they were added.
    QList<Placement> shown() const;
    int addedCount() const { return m_added; }

public slots:
    void addZTDiaolg(QWidget *widget, QPoint position, bool modal);
    void removeWidget(QWidget *widget);

private:
    int m_width;
    int m_height;
    int m_added = 0;
    QList<Placement> m_shown;
};

#endif // SCREENCONTROLLER_H
