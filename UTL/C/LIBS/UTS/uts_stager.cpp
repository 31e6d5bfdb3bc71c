#include "uts_stager.h"

namespace {

constexpr unsigned long REPORT_STEP_FACTOR = 10;

// Whether a counter that has just gone up is due for a line: at 1, 2, ... 10, 20, ... 100, 200, ...
bool ReportDue(unsigned long counter, unsigned long& step) {
    if (counter > REPORT_STEP_FACTOR * step) step *= REPORT_STEP_FACTOR;
    return counter % step == 0;
}

// How many bytes of key and value, in stored form, still fit into a ship message of their own.
long RecordBytesMax(suts_tsspec const& spec) {
    int const strings = spec.HasKeyField() ? suts_StringFields(spec, 0, spec.fieldCount) : 0;
    return SUTS_MESSAGE_BYTES_MAX - SUTS_SHIP_TYPE_BYTES - 2L * SUTS_NUMBER8_BYTES -
           static_cast<long>(strings) * SUTS_STRING_LENGTH_BYTES;
}

}  // namespace

char const* suts_Stager::CheckedStart(char const* recoveryPath, long windowWidth) {
    suts_StgRecovery::RefuseUsedDirectory(recoveryPath);
    suts_StgOrganizer::RefuseWindowWidth(windowWidth);
    return recoveryPath;
}

suts_Stager::suts_Stager(char const* recoveryPath, char const* recoverFromPath, suts_tsspec const& spec,
                         long windowWidth, long tuning, char const* shipHost, unsigned short shipPort1,
                         unsigned short shipPort2, FILE* /*log*/, std::atomic<bool> const& stop, long messageBytesMax)
    : spec_(spec),
      recordBytesMax_(RecordBytesMax(spec)),
      recovery_(CheckedStart(recoveryPath, windowWidth)),
      shipper_(recovery_, spec, shipHost, shipPort1, shipPort2, stop, messageBytesMax),
      organizer_(recovery_, shipper_, spec, windowWidth, tuning, recoveryPath, recoverFromPath),
      pace_(recovery_) {
    if (recoverFromPath != nullptr) Replay(recoverFromPath, stop);
}

suts_Stager::~suts_Stager() = default;

void suts_Stager::Replay(char const* recoverFromPath, std::atomic<bool> const& stop) {
    suts_StgRecoveryPlayback playback(spec_, recoverFromPath);
    suts_StgEntry entry;
    unsigned long recovered = 0;
    unsigned long step = 1;
    while (!stop.load()) {
        if (playback.QNext(entry) != 0) return;
        if (AddRecord(entry.time, entry.key, entry.value) != RECORD_ADDED) continue;
        ++recovered;
        if (ReportDue(recovered, step)) fprintf(stderr, " --- Recovered %lu records\n", recovered);
    }
    fprintf(stderr, "WARNING: SIGTERM has ended the replay after %lu records, replay %s again\n", recovered,
            recoverFromPath);
}

int suts_Stager::Refuse(long time, long bytes) {
    ++refused_;
    if (refused_ == refusedStep_) {
        refusedStep_ *= REPORT_STEP_FACTOR;
        if (time < 0) {
            fprintf(stderr, "ERROR, record refused: negative time stamp %ld (%lu refused so far)\n", time, refused_);
        } else {
            fprintf(stderr, "ERROR, record refused: %ld bytes, %ld are the most (%lu refused so far)\n", bytes,
                    recordBytesMax_, refused_);
        }
    }
    return RECORD_REFUSED;
}

void suts_Stager::Terminate() {
    organizer_.Terminate();
    shipper_.Stop();
    recovery_.Terminate();
}
