#pragma once

#include <QPointer>
#include <QWidget>

class QLabel;
class QScrollArea;

namespace corv::widgets {

class NodePanelViewModel;

// The property surface of the selected node, scrolled; for a node whose type
// is not loaded, a text saying so.
class NodePanel : public QWidget
{
    Q_OBJECT
public:
    explicit NodePanel(NodePanelViewModel *view_model, QWidget *parent = nullptr);
    ~NodePanel() override;

    NodePanelViewModel *view_model() const { return m_view_model; }
    // The surface's view, or null.
    QWidget *surface_view() const { return m_view; }
    // The text shown instead of a surface (not loaded), hidden otherwise.
    QLabel *message() const { return m_message; }

Q_SIGNALS:
    void title_changed(const QString &title);

protected:
    // A change of language: every text of the panel again.
    void changeEvent(QEvent *event) override;

private:
    void show_surface();

    NodePanelViewModel *m_view_model;
    QScrollArea *m_scroll;
    QLabel *m_message;
    QPointer<QWidget> m_view;
};

} // namespace corv::widgets
