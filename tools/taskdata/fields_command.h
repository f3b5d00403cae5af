// `taskdata fields DIR [--json]`: every field (partfield) of a task data directory with its
// customer, farm, boundary area and perimeter measured on the ellipsoid's local tangent plane,
// bounding box and the area the file declares. Public API only; the streams belong to the caller.
#pragma once

#include <QStringList>
#include <QTextStream>

// args are the words after "fields". 0 when printed, 2 on bad usage or an unloadable directory.
int run_fields_command(const QStringList& args, QTextStream& out, QTextStream& err);
