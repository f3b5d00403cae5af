// Symlink_policy: whether the files a task data set refers to (external and individual files,
// grids, time logs, point files, attached files) may be symbolic links. A set from a USB stick
// or the network is not trusted: a link in it could make a load read, or a copy publish, any
// file the user can read. So links are not followed unless the application allows it; a link
// refused is reported with the words of message().
// Process-wide; any thread may call every function.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QString>

namespace TC {
namespace Task_data {

class KTD_EXPORT Symlink_policy
{
public:
    static bool followed();
    static void set_followed(bool on);
    // True when `path` is a symbolic link that is not to be followed; `message` then says so.
    static bool refuses(const QString& path, QString* message = nullptr);
    // "<path> is a symbolic link: not followed"
    static QString message(const QString& path);
};

} // namespace Task_data
} // namespace TC
