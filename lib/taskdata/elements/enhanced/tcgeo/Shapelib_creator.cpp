#include "Shapelib_creator.h"

#include <taskdata/common/Polygon.h>

#include <QFile>
#include <QFileInfo>

#include <shapefil.h>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Enhanced {

namespace {

int flat_type(int t)
{
    switch (t) {
    case SHPT_POINTZ:
    case SHPT_POINTM:
        return SHPT_POINT;
    case SHPT_ARCZ:
    case SHPT_ARCM:
        return SHPT_ARC;
    case SHPT_POLYGONZ:
    case SHPT_POLYGONM:
    case SHPT_MULTIPATCH:
        return SHPT_POLYGON;
    case SHPT_MULTIPOINTZ:
    case SHPT_MULTIPOINTM:
        return SHPT_MULTIPOINT;
    default:
        return t;
    }
}

class Shapelib_handle final : public Shapefile_handle
{
public:
    Shapelib_handle(SHPHandle shp, DBFHandle dbf) : m_shp(shp), m_dbf(dbf)
    {
        int type = 0;
        double min[4] = {0, 0, 0, 0}, max[4] = {0, 0, 0, 0};
        SHPGetInfo(m_shp, &m_count, &type, min, max);
        m_type = flat_type(type);
        m_bounds = QRectF(QPointF(min[0], min[1]), QPointF(max[0], max[1]));
        if (m_dbf) {
            const char* cp = DBFGetCodePage(m_dbf);
            const QByteArray page = cp ? QByteArray(cp).toUpper() : QByteArray();
            m_utf8 = page.contains("UTF") || page.contains("65001");
            const int n = DBFGetFieldCount(m_dbf);
            for (int f = 0; f < n; ++f) {
                char name[XBASE_FLDNAME_LEN_READ + 1] = {0};
                int width = 0, decimals = 0;
                const DBFFieldType t = DBFGetFieldInfo(m_dbf, f, name, &width, &decimals);
                m_fields.append({text(name), t == FTInteger || t == FTDouble, width, decimals});
            }
        }
    }
    ~Shapelib_handle() override
    {
        SHPClose(m_shp);
        if (m_dbf)
            DBFClose(m_dbf);
    }

    int shape_type() const override { return m_type; }
    QRectF bounds() const override { return m_bounds; }
    int shape_count() const override { return m_count; }

    bool read_shape(int shape, Polygon& out) const override
    {
        if (shape < 0 || shape >= m_count)
            return false;
        SHPObject* o = SHPReadObject(m_shp, shape);
        if (!o)
            return false;
        const QPointF ref = out.reference();
        const int parts = m_type == SHPT_POINT || m_type == SHPT_MULTIPOINT ? 1 : qMax(o->nParts, 1);
        for (int part = 0; part < parts; ++part) {
            const int from = o->nParts > 0 && o->panPartStart ? o->panPartStart[part] : 0;
            const int to = part + 1 < o->nParts && o->panPartStart ? o->panPartStart[part + 1] : o->nVertices;
            if (from < 0 || to > o->nVertices || from > to)
                break;
            QPolygonF ring;
            ring.reserve(to - from);
            for (int i = from; i < to; ++i)
                ring.append(QPointF(o->padfX[i] - ref.x(), o->padfY[i] - ref.y()));
            if (part == 0)
                out.set_outer(ring);
            else
                out.add_hole(ring);
        }
        SHPDestroyObject(o);
        return true;
    }

    QList<Field> fields() const override { return m_fields; }

    QVariant value(int shape, int field) const override
    {
        if (!m_dbf || field < 0 || field >= m_fields.size() || shape < 0 || shape >= DBFGetRecordCount(m_dbf) ||
            DBFIsAttributeNULL(m_dbf, shape, field))
            return QVariant();
        if (m_fields.at(field).numeric)
            return DBFReadDoubleAttribute(m_dbf, shape, field);
        const char* s = DBFReadStringAttribute(m_dbf, shape, field);
        return s ? QVariant(text(s)) : QVariant();
    }

private:
    QString text(const char* s) const { return m_utf8 ? QString::fromUtf8(s) : QString::fromLatin1(s); }

    SHPHandle m_shp;
    DBFHandle m_dbf;
    int m_count = 0;
    int m_type = 0;
    bool m_utf8 = false;
    QRectF m_bounds;
    QList<Field> m_fields;
};

// Installed when the library is loaded, unless a reader is already in place.
struct Default_install
{
    Default_install()
    {
        if (!Shapefile_creator::instance())
            Shapefile_creator::set_instance(Shapelib_creator::library_instance());
    }
} g_default_install;

} // namespace

Shapelib_creator* Shapelib_creator::library_instance()
{
    static Shapelib_creator creator;
    return &creator;
}

std::unique_ptr<Shapefile_handle> Shapelib_creator::open(const QString& path)
{
    // Any component or the bare name: shapelib finds the .shp and .shx beside it itself.
    QString base = path;
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix == QLatin1String("shp") || suffix == QLatin1String("shx") || suffix == QLatin1String("dbf"))
        base.chop(4);
    SAHooks hooks;
    SASetupDefaultHooks(&hooks);
    const QByteArray name = QFile::encodeName(base);
    SHPHandle shp = SHPOpenLL(name.constData(), "rb", &hooks);
    if (!shp)
        return nullptr;
    DBFHandle dbf = DBFOpenLL(name.constData(), "rb", &hooks);
    return std::unique_ptr<Shapefile_handle>(new Shapelib_handle(shp, dbf));
}

} // namespace Enhanced
} // namespace Elements
} // namespace Task_data
} // namespace TC
