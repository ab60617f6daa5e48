#include "controls/FolderPicker.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>

namespace zub::controls {

std::string PickFolder(QWidget* parent, const std::string& title, const std::string& startFolder)
{
    QString start = QString::fromStdString(startFolder);
    while (!start.isEmpty() && !QFileInfo(start).isDir()) {
        const QString up = QFileInfo(QDir::cleanPath(start)).path();
        if (up == start || up == ".") { start.clear(); break; }
        start = up;
    }
    // Qt's own dialog rather than a platform one: the same on every desktop, and reachable
    // by a test or a host's automation through its object name.
    QFileDialog dialog(parent, QString::fromStdString(title), start);
    dialog.setObjectName("folderPicker");
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly, true);
    dialog.setOption(QFileDialog::DontUseNativeDialog, true);
    dialog.setAcceptMode(QFileDialog::AcceptOpen);
    if (dialog.exec() != QDialog::Accepted) return {};
    const QStringList chosen = dialog.selectedFiles();
    if (chosen.isEmpty()) return {};
    std::string folder = QDir::cleanPath(chosen.front()).toStdString();
    if (folder.empty() || folder.back() != '/') folder.push_back('/');
    return folder;
}

}  // namespace zub::controls
