// The entry: builds the objects of the server, hands the main thread to the data receiver, and takes them down.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <optional>

#include "sutl_assert.h"
#include "sutl_descriptor.h"
#include "sutl_netorderbytefield.h"
#include "sutl_stopsignal.h"
#include "sutl_tcpsockserver.h"
#include "uts_commandline.h"
#include "uts_datareceiver.h"
#include "uts_stager.h"
#include "uts_stgqueries.h"
#include "uts_tsspec.h"

namespace {

constexpr int STATUS_REFUSED = 8;  // a command line that cannot be carried out
constexpr long TUNING = 20;        // handed through to the organizer, where it has no effect

// Loads the schema. One that failed to load leaves the server running without: its records and queries are refused one
// by one. False where the command line asks for a replay all the same, which could not even count its records.
bool LoadSchema(suts_Settings const& settings, suts_tsspec& spec) {
    if (spec.Init(settings.specFile) != suts_tsspec::LOADED) spec.Clear();
    if (spec.HasKeyField() || settings.recoverFromPath == nullptr) return true;
    fprintf(stderr, "ERROR, the schema %s has no key field: %s cannot be replayed\n", settings.specFile,
            settings.recoverFromPath);
    return false;
}

// Standard input, output and error must be open, or the recovery log would get their numbers and the messages with
// them.
void HoldStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0) static_cast<void>(sutl_OpenFile("/dev/null", O_RDWR).Release());
    }
}

}  // namespace

int main(int argumentCount, char** arguments) {
    HoldStandardDescriptors();
    std::atomic<bool> const& stop = sutl_CatchStopSignal();
    // A peer or a reader of standard error that goes away must not end the server.
    signal(SIGPIPE, SIG_IGN);
    sutl_AbortOnAllocationFailure();
    pthread_setname_np(pthread_self(), "TMain");

    suts_Settings settings;
    if (!suts_ReadCommandLine(argumentCount, arguments, settings)) return STATUS_REFUSED;
    suts_tsspec spec;
    if (!LoadSchema(settings, spec)) return STATUS_REFUSED;

    // The endpoint opens its ports when everything else runs, and comes first here because at the termination end it
    // must be the last to go: nothing closes the producer's connections before the process ends.
    sutl_TCPSockServer endpoint;
    std::optional<suts_Stager> stager;
    stager.emplace(settings.recoveryPath, settings.recoverFromPath, spec, settings.windowWidthUs, TUNING,
                   settings.shipHost, settings.shipPort1, settings.shipPort2, nullptr, stop);
    std::optional<suts_StgQueryEngine> queries;
    queries.emplace(&*stager, &spec, settings.queryPort1, settings.queryPort2);
    // Data ports that listen tell that the replay is complete. SIGTERM may have cut it short.
    if (!stop.load()) endpoint.Listen(settings.dataPort1, settings.dataPort2);

    suts_DataReceiver::RunEnd end;
    {
        sutl_NetorderByteField field;
        suts_DataReceiver receiver(endpoint, field, spec, *stager, stop);
        end = receiver.Run();
        if (end == suts_DataReceiver::TERMINATION_END) {
            fputs("Received Termination,aborting\n", stderr);
        } else {
            if (stop.load()) fputs("Received SIGTERM\n", stderr);
            fputs("Shutting down\n", stderr);
            endpoint.ClosePort();
            endpoint.CloseConnections();
            stager->Terminate();
            queries->Finish();
        }
    }
    queries.reset();
    // At the termination end the stager was not terminated: its destruction ends the process.
    stager.reset();
    spec.Clear();
    return 0;
}
