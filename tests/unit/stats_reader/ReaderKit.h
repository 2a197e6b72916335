#ifndef TARVO_UNIT_STATS_READER_READERKIT_H
#define TARVO_UNIT_STATS_READER_READERKIT_H

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "support/HandmadeStats.h"
#include "support/LeakCheck.h"

namespace tarvo_test {

// A file that is open for reading, and the last reading of it.
class Reader {
public:
    explicit Reader(const std::string &path) : opened_(TarvoStatsOpen(path.c_str(), &file_)) {}
    ~Reader() {
        TarvoStatsFree(&reading_);
        TarvoStatsClose(file_);
    }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    int Opened() const { return opened_; }
    TarvoStatsFile *File() const { return file_; }
    int Read() { return TarvoStatsRead(file_, &reading_); }
    const TarvoStatsReading &Last() const { return reading_; }

private:
    TarvoStatsFile *file_ = nullptr;
    const int opened_;
    TarvoStatsReading reading_{};
};

// Nothing stays open, whatever the file is.
class ReaderTest : public LeakCheckedTest {};

} // namespace tarvo_test

#endif // TARVO_UNIT_STATS_READER_READERKIT_H
