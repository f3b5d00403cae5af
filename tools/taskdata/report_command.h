// `taskdata report DIR OUT [--us]`: a report of a task data directory (customers, farms, fields
// with their measured area, products, devices, tasks with the totals of their time logs) as
// HTML or PDF, chosen by OUT's extension. Public API only; the streams belong to the caller.
// Needs a QGuiApplication (main makes one for this command).
#pragma once

#include <QStringList>
#include <QTextStream>

int run_report_command(const QStringList& args, QTextStream& out, QTextStream& err);
