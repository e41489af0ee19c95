#pragma once

#include <QColor>
#include <QString>

#include <functional>

class QWidget;

namespace corv::cui {

// The dialogs that field widgets open. Each member may be replaced (tests
// answer them without showing anything); an empty member uses the default.
// Cancelling is a null string, or an invalid colour.
struct Dialogs
{
    // Default: QFileDialog::getOpenFileName.
    std::function<QString(QWidget *parent, const QString &caption, const QString &dir,
                          const QString &filter)>
        open_file;
    // Default: a modal QFileDialog in Directory mode showing folders only; the
    // first selected entry.
    std::function<QString(QWidget *parent, const QString &caption, const QString &dir)> open_folder;
    // Default: QFileDialog::getSaveFileName.
    std::function<QString(QWidget *parent, const QString &caption, const QString &dir,
                          const QString &filter)>
        save_file;
    // Default: QColorDialog::getColor.
    std::function<QColor(const QColor &initial, QWidget *parent, const QString &caption)> color;
};

// Replaces the dialogs of every field (process-wide; GUI thread).
void set_dialogs(Dialogs dialogs);

QString get_open_file_name(QWidget *parent, const QString &caption, const QString &dir,
                           const QString &filter);
QString get_existing_directory(QWidget *parent, const QString &caption, const QString &dir);
QString get_save_file_name(QWidget *parent, const QString &caption, const QString &dir,
                           const QString &filter);
QColor get_color(const QColor &initial, QWidget *parent, const QString &caption);

} // namespace corv::cui
