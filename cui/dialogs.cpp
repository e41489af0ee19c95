#include "cui/dialogs.h"

#include <QColorDialog>
#include <QFileDialog>

namespace corv::cui {

namespace {
Dialogs &hooks()
{
    static Dialogs dialogs;
    return dialogs;
}
} // namespace

void set_dialogs(Dialogs dialogs)
{
    hooks() = std::move(dialogs);
}

QString get_open_file_name(QWidget *parent, const QString &caption, const QString &dir,
                           const QString &filter)
{
    if (hooks().open_file)
        return hooks().open_file(parent, caption, dir, filter);
    return QFileDialog::getOpenFileName(parent, caption, dir, filter);
}

QString get_existing_directory(QWidget *parent, const QString &caption, const QString &dir)
{
    if (hooks().open_folder)
        return hooks().open_folder(parent, caption, dir);
    QFileDialog dialog(parent, caption, dir);
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly);
    dialog.setModal(true);
    if (dialog.exec() != QDialog::Accepted)
        return {};
    const QStringList chosen = dialog.selectedFiles();
    return chosen.isEmpty() ? QString() : chosen.first();
}

QString get_save_file_name(QWidget *parent, const QString &caption, const QString &dir,
                           const QString &filter)
{
    if (hooks().save_file)
        return hooks().save_file(parent, caption, dir, filter);
    return QFileDialog::getSaveFileName(parent, caption, dir, filter);
}

QColor get_color(const QColor &initial, QWidget *parent, const QString &caption)
{
    if (hooks().color)
        return hooks().color(initial, parent, caption);
    return QColorDialog::getColor(initial, parent, caption);
}

} // namespace corv::cui
