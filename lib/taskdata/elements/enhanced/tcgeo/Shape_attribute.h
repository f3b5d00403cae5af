// Shape_attribute: one numeric column of a shapefile's dBASE table used as a rate source, with
// the range of the values seen in it.
//
// A plain value owned by whoever holds it (a Shape_file hands out copies). One thread per copy.
#pragma once

#include <taskdata/taskdata_export.h>

#include <QImage>
#include <QString>

#include <limits>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Enhanced {

class KTD_EXPORT Shape_attribute
{
public:
    explicit Shape_attribute(const QString& name = QString(), int field = 0) : name(name), field(field) {}

    // Widens the range to take v in.
    void update_rates(double v);
    // A value was seen and the range is not inverted.
    bool rates_valid() const { return values_seen && min_value <= max_value; }

    QString name; // dBASE column name
    double min_value = std::numeric_limits<double>::max();
    double max_value = -std::numeric_limits<double>::max();
    bool values_seen = false;
    qint32 field = 0;   // column index in the table
    qint32 product = 0; // product the column is bound to (0: none)
    double scale = 1.0; // applied to a value to give the rate
    QImage preview;
};

} // namespace Enhanced
} // namespace Elements
} // namespace Task_data
} // namespace TC
