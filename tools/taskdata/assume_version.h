// `--assume-version N`, an option of every `taskdata` command that loads a directory (info,
// check, convert, timelog): a main file whose root has no VersionMajor (as some generators write
// them) is read as version N, with a warning naming the file, instead of being refused.
// main() takes the option out of the arguments before the command sees them; load_directory()
// hands it to the library. Tool thread only.
#pragma once

#include <QString>
#include <QStringList>

namespace Taskdata_tool {

// Whether `command` loads a directory and so takes the option.
bool command_loads(const QString& command);
// Removes "--assume-version N" / "--assume-version=N" from `args` and remembers N. False with
// `error` when N is not 3 or 4 or is missing.
bool take_assume_version(QStringList& args, QString& error);
// The version remembered; 0 when none was given.
int assumed_version();
// The line the usage texts of the loading commands end with.
const char* assume_version_usage();

} // namespace Taskdata_tool
