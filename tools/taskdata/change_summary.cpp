// Implementation of the change summary; see change_summary.h.
#include "change_summary.h"

#include "tool_support.h"

#include <taskdata/common/Task_data_files.h>

#include <QFileInfo>
#include <QJsonObject>

namespace Taskdata_tool {

namespace {
const char* const newer = "attributes and elements newer than format version %1, left out";
const char* const replaced = "values replaced by defaults or limits";
const char* const reformatted = "values written in another form";
const char* const identifiers = "identifiers rewritten";
const char* const file_names = "file names rewritten";
const char* const cut = "texts cut";
const char* const not_read = "elements not read";
const char* const references = "references left out";
const char* const unknown = "unknown attributes left out";
} // namespace

QString change_of(const QString& code, bool identifier, int version)
{
    if (code == QLatin1String("newer_attribute") || code == QLatin1String("newer_element"))
        return QString::fromLatin1(newer).arg(version);
    if (identifier && (code == QLatin1String("missing_attribute") || code == QLatin1String("bad_format") ||
                       code == QLatin1String("malformed_identifier") || code == QLatin1String("not_a_number")))
        return QLatin1String(identifiers);
    if (code == QLatin1String("duplicate_identifier"))
        return QLatin1String(identifiers);
    if (code == QLatin1String("out_of_range") || code == QLatin1String("not_a_number") ||
        code == QLatin1String("invalid_date") || code == QLatin1String("missing_attribute") ||
        code == QLatin1String("unsupported_version"))
        return QLatin1String(replaced);
    if (code == QLatin1String("bad_format"))
        return QLatin1String(reformatted);
    if (code == QLatin1String("too_long"))
        return QLatin1String(cut);
    if (code == QLatin1String("file_name"))
        return QLatin1String(file_names);
    if (code == QLatin1String("unknown_element"))
        return QLatin1String(not_read);
    if (code == QLatin1String("unreadable_reference"))
        return QLatin1String(references);
    if (code == QLatin1String("unknown_attribute"))
        return QLatin1String(unknown);
    return QString();
}

QVector<Change_line> summarize_changes(const QVector<Check_problem>& problems, bool keep_proprietary)
{
    QVector<Change_line> lines;
    for (const Check_problem& p : problems) {
        if (p.change.isEmpty() || (keep_proprietary && p.change == QLatin1String(unknown)))
            continue;
        auto it = std::find_if(lines.begin(), lines.end(), [&](const Change_line& c) { return c.kind == p.change; });
        if (it == lines.end())
            lines.append({p.change, 1, p});
        else
            ++it->count;
    }
    // In the order of the list above, whatever the order of the problems.
    const QStringList order{QString::fromLatin1(newer).section(QLatin1Char('%'), 0, 0), QLatin1String(replaced),
                            QLatin1String(reformatted), QLatin1String(identifiers), QLatin1String(file_names),
                            QLatin1String(cut),
                            QLatin1String(not_read), QLatin1String(references), QLatin1String(unknown)};
    auto rank = [&](const Change_line& c) {
        for (int i = 0; i < order.size(); ++i)
            if (c.kind.startsWith(order.at(i)))
                return i;
        return order.size();
    };
    std::stable_sort(lines.begin(), lines.end(),
                     [&](const Change_line& a, const Change_line& b) { return rank(a) < rank(b); });
    return lines;
}

QVector<Change_line> changes_for_writing(const Loaded_dir& d, const QVector<Check_problem>* found)
{
    const int version = TC::Task_data::Task_data_files::version_to_write(*d.xi, d.man);
    QVector<Change_line> lines = summarize_changes(found && version == d.version() ? *found : find_problems(d, version),
                                                   d.xi->keep_proprietary());
    // The link list came with version 4.
    if (version < 4 && d.man->link_list()) {
        const QString kind = QString::fromLatin1(newer).arg(version);
        if (!lines.isEmpty() && lines.first().kind == kind) {
            ++lines.first().count;
        } else {
            Check_problem p;
            p.file = QStringLiteral("LINKLIST.XML");
            lines.prepend({kind, 1, p});
        }
    }
    // A document that holds content of a newer version than it claims is written as that one.
    if (!d.xi->format_version_set() && version != d.version()) {
        Check_problem p;
        p.file = QFileInfo(d.main_file).fileName();
        p.attribute = QStringLiteral("VersionMajor");
        lines.prepend({QStringLiteral("format version %1 written as %2, for content of version %2")
                           .arg(d.version())
                           .arg(version),
                       1, p});
    }
    return lines;
}

QString change_text(const Change_line& c)
{
    QString where = c.first.file;
    if (c.first.line > 0)
        where += QLatin1Char(':') + QString::number(c.first.line);
    QStringList parts{where, c.first.element, c.first.attribute};
    parts.removeAll(QString());
    return QStringLiteral("%1: %2 (first: %3)").arg(c.kind).arg(c.count).arg(parts.join(QLatin1Char(' ')));
}

QJsonArray changes_json(const QVector<Change_line>& changes)
{
    QJsonArray a;
    for (const Change_line& c : changes)
        a.append(QJsonObject{{QStringLiteral("kind"), c.kind},
                             {QStringLiteral("count"), c.count},
                             {QStringLiteral("file"), c.first.file},
                             {QStringLiteral("line"), c.first.line},
                             {QStringLiteral("element"), c.first.element},
                             {QStringLiteral("attribute"), c.first.attribute}});
    return a;
}

} // namespace Taskdata_tool
