// String_filter: decides which names pass (used to choose the proprietary child elements read).
// An empty filter admits everything. Value type; any thread may use its own copy.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QStringList>
#include <QStringView>

namespace TC {
namespace Task_data {

class KTD_EXPORT String_filter
{
public:
    String_filter() = default;
    // Patterns are exact names or prefixes ending in "*".
    explicit String_filter(const QStringList& patterns, bool exclude = false)
        : m_patterns(patterns), m_exclude(exclude)
    {
    }
    bool admits(QStringView name) const
    {
        if (m_patterns.isEmpty())
            return true;
        bool hit = false;
        for (const QString& p : m_patterns) {
            if (p.endsWith(QLatin1Char('*')) ? name.startsWith(QStringView(p).left(p.size() - 1)) : name == p) {
                hit = true;
                break;
            }
        }
        return m_exclude ? !hit : hit;
    }
    const QStringList& patterns() const { return m_patterns; }
    bool excludes() const { return m_exclude; }

private:
    QStringList m_patterns;
    bool m_exclude = false;
};

} // namespace Task_data
} // namespace TC
