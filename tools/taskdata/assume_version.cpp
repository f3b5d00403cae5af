// Implementation of `--assume-version`; see assume_version.h.
#include "assume_version.h"

namespace Taskdata_tool {

namespace {
int g_assumed_version = 0;
}

bool command_loads(const QString& command)
{
    return command == QLatin1String("info") || command == QLatin1String("check") ||
           command == QLatin1String("convert") || command == QLatin1String("timelog") ||
           command == QLatin1String("fields") || command == QLatin1String("report");
}

bool take_assume_version(QStringList& args, QString& error)
{
    static const QString option = QStringLiteral("--assume-version");
    for (int i = 0; i < args.size(); ++i) {
        const QString& a = args.at(i);
        if (a == QLatin1String("--"))
            break;
        QString value;
        int taken = 1;
        if (a == option) {
            if (i + 1 >= args.size()) {
                error = QStringLiteral("option %1 needs a value").arg(option);
                return false;
            }
            value = args.at(i + 1);
            taken = 2;
        } else if (a.startsWith(option + QLatin1Char('='))) {
            value = a.mid(option.size() + 1);
        } else {
            continue;
        }
        if (value != QLatin1String("3") && value != QLatin1String("4")) {
            error = QStringLiteral("%1 must be 3 or 4, not %2").arg(option, value);
            return false;
        }
        g_assumed_version = value.toInt();
        args.erase(args.begin() + i, args.begin() + i + taken);
        --i;
    }
    return true;
}

int assumed_version() { return g_assumed_version; }

const char* assume_version_usage()
{
    return "  --assume-version N  read a main file without VersionMajor as format version N (3 or 4)\n";
}

} // namespace Taskdata_tool
