// Designators of the process data dictionary (ISO 11783-11 DDIs), as shown to the operator and
// written into task data. Returned strings are owned by the caller; nothing is shared or cached.
// Pure and reentrant: any thread may call it at any time, before or after QCoreApplication exists.
#pragma once

#include <QObject>
#include <QString>
#include <taskdata/taskdata_export.h>

namespace TC {
namespace Task_data {

class KTD_EXPORT DDI_strings : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    // The designator byte for byte as published, doubled and trailing spaces included, since
    // other terminals compare designators literally. "Unknown" for a DDI without a dictionary
    // entry, including 57345..65534: only 57344 stands for the whole proprietary range.
    // The body is generated into DDI_strings_data.cpp by scripts/generate_ddi.cmake.
    static QString str(unsigned short ddi);
};

} // namespace Task_data
} // namespace TC
