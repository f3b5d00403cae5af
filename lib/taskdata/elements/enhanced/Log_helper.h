// Log_helper: decodes one binary time log -- the "TLGnnnnn.XML" header (a TIM element) and the
// "TLGnnnnn.BIN" records of a TLG element -- into records of time, position and logged values.
//
// Ownership: a Log_helper owns the header element it reads (created in the time log's element
// manager, so its DLV references resolve against the loaded document), the open binary file
// and its read-only mapping (or the byte array given to init_from_data), its record cache and
// a debug file it opened itself. A debug device handed in stays the caller's. The TLG element
// is only read while init runs; the helper keeps no reference to it.
// Threads: one Log_helper belongs to one thread (every read moves its cursor). Helpers over
// the same files may be used on different threads at the same time.
//
// Record layout: every header attribute that is present but empty is a field each record
// carries, little-endian, in this order: time (int32 ms since midnight) and date (uint16 days
// since 1980-01-01) when TIM A is empty (or, without A, when B is empty); the position fields
// of the first PTN (north, east, up, status, PDOP, HDOP, satellites, GPS UTC time, GPS UTC
// date); a DLV count byte; then count x (uint8 DLV number, int32 value). The DLV number is the
// index of the DLV in the header. A header without PTN has no position fields; a PTN without
// north, east or status at all is no usable layout.
#pragma once

#include <taskdata/elements/base/Catalogue.h>
#include <taskdata/taskdata_export.h>

#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <QIODevice>
#include <QMap>
#include <QPointer>
#include <QSharedPointer>
#include <QString>
#include <QVarLengthArray>
#include <QVariant>
#include <QVector>

#include <memory>

namespace TC {
namespace Task_data {
namespace Elements {
namespace Enhanced {

class KTD_EXPORT Log_helper
{
public:
    // Position fields in record order; field i is bit i + 1 of a record's field mask.
    enum Pos_field : unsigned {
        pos_north,
        pos_east,
        pos_up,
        pos_status,
        pos_pdop,
        pos_hdop,
        pos_satellites,
        pos_gps_utc_time,
        pos_gps_utc_date,
        num_pos_fields
    };
    static constexpr quint16 mask_time = 1;
    static constexpr quint16 mask_pos(unsigned field) { return quint16(1u << (field + 1)); }
    // Status of a record that carries none: "not available", deliberately not 0 ("no fix").
    static constexpr quint8 status_none = 15;
    // TLG B when the length is not known: the file's own size is taken.
    static constexpr quint32 filelength_unknown = 4294967295u;
    static constexpr quint32 dtime_overflow = 4294967295u;
    // The DDI whose DLVs also name a PGN and bit range.
    static constexpr quint16 ddi_pgn = 57342;
    static constexpr quint32 ms_per_day = 86400000u;

    // Bytes a record spends on position field `field`; 0 for numbers outside 0..8.
    static unsigned get_pos_field_len(unsigned field);

    // What one header DLV says about the values logged under its number.
    struct KTD_EXPORT Value
    {
        quint16 ddi = 65535;         // 65535 while the header gives none
        qint32 device_element = 0;   // DET number, 0 when none
        quint32 pgn = 0;             // only for DDI 57342
        quint8 start_bit = 0;        // only for DDI 57342
        quint8 stop_bit = 0;         // only for DDI 57342
        double resolution = 1;       // from the data dictionary; 1 when unknown or unpublished

        void init(Base::Data_log_value* dlv);
        // A logged raw value in the dictionary's unit.
        double decode(int raw) const { return raw * resolution; }
        // Which identifying fields differ: 1 DDI, 2 device element, 4 PGN, 8 start bit, 16 stop bit.
        unsigned diff(const Value& other) const;
        bool operator==(const Value& other) const { return diff(other) == 0; }
        bool operator!=(const Value& other) const { return diff(other) != 0; }
        // Orders by DDI, device element, PGN, start bit, stop bit.
        bool operator<(const Value& other) const;
    };

    // One decoded record. Fields the record does not carry keep what the Record held before
    // (a fresh Record: zeros and status 15); field_mask says what the last decode carried.
    class KTD_EXPORT Record
    {
    public:
        quint32 time = 0;         // ms since midnight
        quint32 day = 0;          // days since 1980-01-01
        double north = 0;         // degrees
        double east = 0;          // degrees
        double up = 0;            // metres
        quint8 status = status_none;
        float pdop = 0;
        float hdop = 0;
        quint8 satellites = 0;
        quint32 gps_utc_time = 0; // ms since midnight
        quint32 gps_utc_date = 0; // days since 1980-01-01
        quint16 field_mask = 0;   // bit 0 time and date, bits 1..9 position fields 0..8
        unsigned index = 0;       // record number in the file

        // Time and day from the wall clock of dt as it is held (no zone conversion).
        void set_time(const QDateTime& dt);
        // The wall clock as recorded, in a Qt::UTC value so that no daylight-saving rule moves it.
        QDateTime date_time() const;

        static QString get_pos_name(unsigned field);
        // The field's value (double for 0..2, int for 3 and 6, float for 4 and 5, unsigned int
        // for 7 and 8), invalid for other numbers. The mask is deliberately not consulted:
        // callers that care test field_mask.
        QVariant get_pos_field(unsigned field) const;

        // Field-by-field extremes taken into this record. Time and date count as one field
        // (the earlier or later moment); DLVs per number over the records carrying them.
        void min(const Record& other);
        void max(const Record& other);

        // --- logged values, by DLV number ---
        const QMap<quint8, qint32>& get_dlvs() const;
        int dlv_count() const { return m_dlvs.size(); }
        bool has_dlv(quint8 number) const;
        qint32 dlv(quint8 number, qint32 absent = 0) const;
        // The i-th value in ascending number order.
        quint8 dlv_number_at(int i) const { return m_dlvs[i].number; }
        qint32 dlv_value_at(int i) const { return m_dlvs[i].value; }
        // A later value of the same number replaces the earlier one.
        void set_dlv(quint8 number, qint32 value);
        void clear_dlvs();

    private:
        int lower_bound(quint8 number) const;
        // Keeps, field by field, the value of `o` where it is `better` (earlier moment first).
        template <class Better>
        void take_extremes(const Record& o, Better better);
        struct Dlv
        {
            quint8 number;
            qint32 value;
        };
        QVarLengthArray<Dlv, 32> m_dlvs; // ascending by number
        mutable QMap<quint8, qint32> m_map;
        mutable bool m_map_valid = false;
    };

    // The most recently decoded records as one window of consecutive record numbers, so that
    // stepping forwards or backwards through a neighbourhood decodes each record once. Bounded:
    // a step outside the window and its two edges starts a new window.
    class KTD_EXPORT Record_cache
    {
    public:
        explicit Record_cache(unsigned capacity = 256);
        const Record* find(unsigned index) const;
        // Stores a copy of the record under record.index.
        const Record* insert(const Record& record);
        void clear();
        bool empty() const { return m_count == 0; }
        unsigned size() const { return m_count; }
        unsigned capacity() const { return unsigned(m_slots.size()); }
        // Lowest and highest record number held; both 0 when empty.
        unsigned min_record_no() const { return m_count ? m_first : 0; }
        unsigned max_record_no() const { return m_count ? m_first + m_count - 1 : 0; }

    private:
        QVector<Record> m_slots;
        unsigned m_head = 0;  // slot of m_first
        unsigned m_first = 0;
        unsigned m_count = 0;
    };

    Log_helper();
    explicit Log_helper(const QSharedPointer<Base::Time_log>& tlg);
    ~Log_helper();
    Log_helper(const Log_helper&) = delete;
    Log_helper& operator=(const Log_helper&) = delete;

    // Reads the time log's header and maps its binary file. debug_file, when given, receives
    // one line per decoded record and value. False, with "init failed" (or "Timelog is of no
    // use" for a null time log) on standard output and fail_text(), when the log is not usable;
    // the helper then holds no records.
    bool init(const QSharedPointer<Base::Time_log>& tlg, QString debug_file = QString());
    // The same from memory: header XML and record bytes (shared, not copied). filelength is
    // what the TLG would declare. For tools and tests that hold no files.
    bool init_from_data(const QSharedPointer<Base::Element_man>& man, const QByteArray& header_xml,
                        const QByteArray& binary, quint32 filelength = filelength_unknown);

    // --- the steps of init, usable on their own ---
    // Time part of the layout from the header TIM; false for no TIM.
    bool setup_time_record(Base::Time* tim);
    // Position part from the header's PTN (null: no position fields).
    bool setup_pos_record(Base::Position* ptn);
    // Opens and maps "<TLG name>.BiN" (found in any letter case); false when absent, unreadable
    // or not of the length the TLG declares.
    bool open_binmap(Base::Time_log* tlg);

    bool ok() const { return m_ok; }
    QString fail_text() const { return m_fail_text; }

    // --- layout ---
    QSharedPointer<Base::Time> header() const { return m_header; }
    const QVector<Value>& values() const { return m_values; }
    bool time_in_record() const { return m_field_mask & mask_time; }
    // Time and day of every record when the header gives them as a value, not per record.
    bool header_time_valid() const { return m_header_time_valid; }
    quint16 pos_mask() const { return m_pos_mask; }
    quint16 field_mask() const { return m_field_mask; }
    // Bytes of a record without its values, including the count byte.
    unsigned fixed_length() const { return m_fixed; }
    QString binary_path() const { return m_binary_path; }
    qint64 binary_size() const { return qint64(m_size); }

    // --- records ---
    // Start of record `index` in the mapping and its DLV count; null when there is no whole
    // record of that number. Moves the cursor there: the next number costs one step, a lower
    // number starts again at record 0.
    const uchar* get_raw_record(unsigned index, unsigned* dlv_count);
    unsigned get_num_records();
    // Bytes after the last whole record (a cut-off record); 0 for a clean file.
    qint64 trailing_bytes();
    // Decodes record `index` into rec with only its own values. False when there is none.
    bool get_record(Record& rec, unsigned index);
    // Decodes record `index` into rec keeping the values of numbers it does not carry, so that
    // applying records in order gives the current state of every value.
    bool update_record(Record& rec, unsigned index);
    // Record `index` through the cache; null when there is none. Valid until the next call.
    const Record* record(unsigned index);
    Record_cache& cache() { return m_cache; }
    // Field-by-field extremes over all records (a fresh Record when there are none).
    const Record& get_min_record();
    const Record& get_max_record();
    // Every DLV number met by the decoding so far, ascending.
    QVector<quint8> dlvs_seen() const;

    // Milliseconds from the first record to rec: 0 when rec is not later, dtime_overflow when
    // the distance does not fit 32 bits.
    quint32 get_dtime(const Record& rec);
    static quint32 get_dtime(const Record& rec, quint32 base_time, quint32 base_day);

    // --- debug output ---
    // The device stays the caller's; one that is destroyed first is simply no longer written.
    void set_debug_device(QIODevice* device);
    // Writes the DLV numbers seen and ends debug output.
    void close_debug();

private:
    void reset();
    bool fail(const QString& text);
    bool load_header(const QSharedPointer<Base::Element_man>& man, const QByteArray& xml, const QString& name);
    bool setup_layout();
    bool decode(Record& rec, unsigned index, bool clear_values);
    void debug_record(const Record& rec);
    void compute_extremes();

    QSharedPointer<Base::Time> m_header;
    QVector<Value> m_values;
    bool m_ok = false;
    QString m_fail_text;

    unsigned m_time_len = 0;
    unsigned m_pos_len = 0;
    unsigned m_fixed = 1;
    quint16 m_pos_mask = 0;
    quint16 m_field_mask = 0;
    bool m_header_time_valid = false;
    quint32 m_header_time = 0;
    quint32 m_header_day = 0;

    QFile m_file;
    QByteArray m_bytes; // the record bytes of init_from_data
    QString m_binary_path;
    const uchar* m_data = nullptr;
    quint64 m_size = 0;

    unsigned m_cur_index = 0;
    quint64 m_cur_offset = 0;
    qint64 m_num_records = -1;
    qint64 m_trailing = 0;

    quint64 m_seen[4] = {0, 0, 0, 0};
    Record_cache m_cache;
    bool m_extremes_valid = false;
    Record m_min;
    Record m_max;
    bool m_base_valid = false;
    quint32 m_base_time = 0;
    quint32 m_base_day = 0;

    QPointer<QIODevice> m_debug; // cleared by Qt should the caller's device go first
    std::unique_ptr<QFile> m_debug_file;
};

} // namespace Enhanced
} // namespace Elements
} // namespace Task_data
} // namespace TC
