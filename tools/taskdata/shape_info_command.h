// `taskdata shape-info FILE.shp [--json]`: what a shapefile set holds -- shape type and count,
// bounding box, and every numeric attribute column with its minimum and maximum -- read through
// the library's installed shapefile reader. The streams belong to the caller.
#pragma once

#include <QStringList>
#include <QTextStream>

int run_shape_info_command(const QStringList& args, QTextStream& out, QTextStream& err);
