// Little-endian reads from a byte buffer (binary time log, point and grid files).
// Binary_message_storage either views bytes the caller keeps alive (a mapped file) or shares
// a QByteArray. A Binary_wrapper owns its storage object and a cursor; one wrapper belongs to
// one thread, while wrappers over the same bytes may be read in parallel.
// Checked reads answer false and set the value to 0 when fewer bytes remain, leaving the cursor
// where it was. The static *_at helpers do no checking: callers test remaining() once per record.
#pragma once

#include <QByteArray>
#include <QtEndian>
#include <QtGlobal>

#include <cstddef>
#include <cstring>
#include <utility>

class Binary_message_storage {
public:
    Binary_message_storage() = default;
    // A view: the bytes must outlive this object and every copy of it.
    Binary_message_storage(const char* data, size_t size) : data_(data), size_(data ? size : 0) {}
    // Shares the array (implicitly, no copy of the bytes).
    explicit Binary_message_storage(const QByteArray& bytes)
        : owned_(bytes), size_(size_t(bytes.size())), owning_(true)
    {
    }

    const char* data() const { return owning_ ? owned_.constData() : data_; }
    size_t size() const { return size_; }
    bool owning() const { return owning_; }

private:
    QByteArray owned_;
    const char* data_ = nullptr;
    size_t size_ = 0;
    bool owning_ = false;
};

// Storage needs `const char* data() const` and `size_t size() const`.
template<class Storage>
class Binary_wrapper {
public:
    Binary_wrapper() = default;
    explicit Binary_wrapper(Storage storage) : storage_(std::move(storage)) {}

    const Storage& storage() const { return storage_; }
    size_t size() const { return storage_.size(); }
    size_t position() const { return pos_; }
    size_t remaining() const { return storage_.size() - pos_; }
    bool at_end() const { return pos_ >= storage_.size(); }
    // Positions up to size() (at end) are accepted; beyond it the cursor stays and false answers.
    bool seek(size_t pos)
    {
        if (pos > storage_.size())
            return false;
        pos_ = pos;
        return true;
    }
    bool skip(size_t count)
    {
        if (count > remaining())
            return false;
        pos_ += count;
        return true;
    }
    // Address of the byte under the cursor, for the unchecked helpers.
    const uchar* current() const { return reinterpret_cast<const uchar*>(storage_.data()) + pos_; }

    bool read_u8(quint8& v) { return read_le(v); }
    bool read_i8(qint8& v) { return read_le(v); }
    bool read_u16(quint16& v) { return read_le(v); }
    bool read_i16(qint16& v) { return read_le(v); }
    bool read_u32(quint32& v) { return read_le(v); }
    bool read_i32(qint32& v) { return read_le(v); }
    bool read_u64(quint64& v) { return read_le(v); }
    bool read_i64(qint64& v) { return read_le(v); }
    bool read_float(float& v)
    {
        quint32 bits;
        const bool ok = read_le(bits);
        std::memcpy(&v, &bits, sizeof v); // bits is 0 on failure, which is 0.0f
        return ok;
    }
    bool read_double(double& v)
    {
        quint64 bits;
        const bool ok = read_le(bits);
        std::memcpy(&v, &bits, sizeof v);
        return ok;
    }

    // memcpy because record fields are not aligned.
    static quint16 u16_at(const uchar* p) { return load<quint16>(p); }
    static qint16 i16_at(const uchar* p) { return load<qint16>(p); }
    static quint32 u32_at(const uchar* p) { return load<quint32>(p); }
    static qint32 i32_at(const uchar* p) { return load<qint32>(p); }
    static quint64 u64_at(const uchar* p) { return load<quint64>(p); }

private:
    template<class T>
    static T load(const uchar* p)
    {
        T v;
        std::memcpy(&v, p, sizeof v);
        return qFromLittleEndian(v);
    }

    template<class T>
    bool read_le(T& v)
    {
        if (remaining() < sizeof(T)) {
            v = 0;
            return false;
        }
        v = load<T>(current());
        pos_ += sizeof(T);
        return true;
    }

    Storage storage_;
    size_t pos_ = 0;
};
