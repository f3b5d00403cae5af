// Helpers shared by the benchmark executables: clocks, memory figures and table output.
//
// Header-only, owned by bench/. Figures are always printed next to a baseline measured in the
// same run, because these machines are noisy and an absolute time alone says little.
// Threads: the benchmarks are single-threaded; nothing here is synchronised.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <ctime>
#include <unistd.h>

namespace Ktd_bench {

inline double now_s()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// CPU time of the whole process (user + system). The benchmarks are single-threaded, so this is
// what the measured code costs even when other jobs share the cores and stretch the wall time.
inline double cpu_s()
{
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Wall and CPU seconds of repeated runs of one step.
struct Timing
{
    QVector<double> wall;
    QVector<double> cpu;
};

class Stopwatch
{
public:
    explicit Stopwatch(Timing& t) : m_t(t), m_wall(now_s()), m_cpu(cpu_s()) {}
    ~Stopwatch()
    {
        m_t.cpu.append(cpu_s() - m_cpu);
        m_t.wall.append(now_s() - m_wall);
    }
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;

private:
    Timing& m_t;
    double m_wall;
    double m_cpu;
};

// Resident set size now, from /proc/self/statm (second field, in pages).
inline qint64 rss_bytes()
{
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (!f)
        return -1;
    long size = 0, resident = 0;
    const int n = std::fscanf(f, "%ld %ld", &size, &resident);
    std::fclose(f);
    return n == 2 ? qint64(resident) * sysconf(_SC_PAGESIZE) : -1;
}

// Bytes handed out by malloc and not freed yet (small blocks plus mmapped ones). Unlike RSS
// this does not depend on which freed pages the allocator happens to keep.
inline qint64 heap_in_use()
{
    const struct mallinfo2 mi = mallinfo2();
    return qint64(mi.uordblks) + qint64(mi.hblkhd);
}

// Peak resident set size of this process's memory so far, in kB: VmHWM of /proc/self/status.
// Unlike getrusage's ru_maxrss it starts afresh at exec, so a child started by a big parent
// does not report the parent's size.
inline qint64 peak_rss_kb()
{
    FILE* f = std::fopen("/proc/self/status", "r");
    if (!f)
        return -1;
    char line[256];
    long long kb = -1;
    while (std::fgets(line, sizeof line, f))
        if (std::sscanf(line, "VmHWM: %lld kB", &kb) == 1)
            break;
    std::fclose(f);
    return kb;
}

inline double min_of(QVector<double> v)
{
    return v.isEmpty() ? 0.0 : *std::min_element(v.begin(), v.end());
}

inline double median_of(QVector<double> v)
{
    if (v.isEmpty())
        return 0.0;
    std::sort(v.begin(), v.end());
    const int n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

inline QByteArray fmt(const char* format, double v)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, format, v);
    return QByteArray(buf);
}

// Keeps a value alive so the optimiser cannot drop the loop that computed it.
template <class T>
inline void keep(const T& v)
{
    asm volatile("" : : "g"(&v) : "memory");
}

// A plain text table with right-aligned numeric columns, Markdown-compatible so the output
// can be pasted into the README unchanged.
class Table
{
public:
    explicit Table(QVector<QByteArray> header) : m_rows{std::move(header)} {}
    void add(QVector<QByteArray> row) { m_rows.append(std::move(row)); }
    void print() const
    {
        QVector<int> w;
        for (const auto& r : m_rows)
            for (int i = 0; i < r.size(); ++i) {
                if (w.size() <= i)
                    w.append(0);
                w[i] = std::max(w[i], int(r[i].size()));
            }
        for (int ri = 0; ri < m_rows.size(); ++ri) {
            const auto& r = m_rows[ri];
            std::printf("|");
            for (int i = 0; i < r.size(); ++i)
                std::printf(i == 0 ? " %-*s |" : " %*s |", w[i], r[i].constData());
            std::printf("\n");
            if (ri == 0) {
                std::printf("|");
                for (int i = 0; i < r.size(); ++i)
                    std::printf(i == 0 ? ":%s|" : "%s:|", QByteArray(w[i] + 1, '-').constData());
                std::printf("\n");
            }
        }
        std::fflush(stdout);
    }

private:
    QVector<QVector<QByteArray>> m_rows;
};

} // namespace Ktd_bench
