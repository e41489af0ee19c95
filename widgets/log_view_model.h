#pragma once

#include <QAbstractListModel>
#include <QList>
#include <QString>

#include <deque>
#include <utility>

namespace corv::widgets {

// The program's log as the log file has it, one row per line, warnings and
// errors marked (foreground and background roles). add() may be called from
// any thread; rows arrive on the model's thread. Keeps the latest kCapacity
// lines.
class LogViewModel : public QAbstractListModel
{
    Q_OBJECT
public:
    static constexpr int kCapacity = 10000;
    enum Role { TypeRole = Qt::UserRole + 1 }; // int: the QtMsgType

    explicit LogViewModel(QObject *parent = nullptr);

    // Thread-safe: queues the line for the model's thread.
    void add(QtMsgType type, const QString &line);
    // On the model's thread: appends at once.
    void append(const QList<std::pair<QtMsgType, QString>> &lines);

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

private:
    std::deque<std::pair<QtMsgType, QString>> m_lines;
};

} // namespace corv::widgets
