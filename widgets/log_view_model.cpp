#include "widgets/log_view_model.h"

#include <QBrush>
#include <QColor>
#include <QMetaObject>

namespace corv::widgets {

LogViewModel::LogViewModel(QObject *parent) : QAbstractListModel(parent) {}

void LogViewModel::add(QtMsgType type, const QString &line)
{
    QMetaObject::invokeMethod(
        this, [this, type, line] { append({{type, line}}); }, Qt::QueuedConnection);
}

void LogViewModel::append(const QList<std::pair<QtMsgType, QString>> &lines)
{
    if (lines.isEmpty())
        return;
    const int first = int(m_lines.size());
    beginInsertRows({}, first, first + int(lines.size()) - 1);
    m_lines.insert(m_lines.end(), lines.begin(), lines.end());
    endInsertRows();
    if (m_lines.size() > std::size_t(kCapacity)) {
        const int over = int(m_lines.size()) - kCapacity;
        beginRemoveRows({}, 0, over - 1);
        m_lines.erase(m_lines.begin(), m_lines.begin() + over);
        endRemoveRows();
    }
}

int LogViewModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(m_lines.size());
}

QVariant LogViewModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= int(m_lines.size()))
        return {};
    const auto &[type, line] = m_lines[std::size_t(index.row())];
    const bool error = type == QtCriticalMsg || type == QtFatalMsg;
    switch (role) {
    case Qt::DisplayRole:
        return line;
    case TypeRole:
        return int(type);
    case Qt::ForegroundRole:
        if (error)
            return QBrush(QColor(0xb0, 0x00, 0x20));
        if (type == QtWarningMsg)
            return QBrush(QColor(0x8a, 0x50, 0x00));
        break;
    case Qt::BackgroundRole:
        if (error)
            return QBrush(QColor(0xfd, 0xe2, 0xe4));
        if (type == QtWarningMsg)
            return QBrush(QColor(0xff, 0xf4, 0xd6));
        break;
    }
    return {};
}

} // namespace corv::widgets
