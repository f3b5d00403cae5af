#include "Symlink_policy.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <atomic>

namespace TC {
namespace Task_data {

namespace {
std::atomic<bool> g_followed{false};
}

bool Symlink_policy::followed() { return g_followed.load(); }

void Symlink_policy::set_followed(bool on) { g_followed.store(on); }

QString Symlink_policy::message(const QString& path)
{
    return QCoreApplication::translate("XML_interface", "%1 is a symbolic link: not followed").arg(path);
}

bool Symlink_policy::refuses(const QString& path, QString* text)
{
    if (path.isEmpty() || followed() || !QFileInfo(path).isSymLink())
        return false;
    if (text)
        *text = message(path);
    return true;
}

} // namespace Task_data
} // namespace TC
