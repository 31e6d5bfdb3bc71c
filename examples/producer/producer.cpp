// Sends this machine's load and free memory to a Brindle server, one record at a time.
//
//   producer producer.spec HOST:PORT1,PORT2 COUNT [INTERVAL_MS]
//
// Compile it with CMake (CMakeLists.txt beside it), or by hand:
//   c++ -std=c++20 producer.cpp $(pkg-config --cflags --libs brindle_client) -o producer

#include <brindle/brindle_connection.h>
#include <brindle/brindle_records.h>
#include <stdlib.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

using namespace std::chrono;

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "Usage: producer SPEC HOST:PORT1,PORT2 COUNT [INTERVAL_MS]\n");
        return 2;
    }

    // The schema tells the library how a record looks. The fields below must be those of the file.
    suts_tsspec spec;
    if (spec.Init(argv[1]) != suts_tsspec::LOADED || spec.fieldCount != 3) {
        fprintf(stderr, "producer: %s is not the schema that this program writes\n", argv[1]);
        return 78;
    }
    brindle_Address address;
    if (!brindle_ParseAddress(argv[2], address)) {
        fprintf(stderr, "producer: '%s' is no address\n", argv[2]);
        return 2;
    }
    long const count = strtol(argv[3], nullptr, 10);
    milliseconds const interval(argc > 4 ? strtol(argv[4], nullptr, 10) : 1000);

    // A server serves one producer, and ends with it: connect once, and stay.
    brindle_Connection server;
    if (server.Open(address, seconds(10)) != BRINDLE_DONE) {
        fprintf(stderr, "producer: no server at %s\n", argv[2]);
        return 69;
    }

    char host[256] = "";
    gethostname(host, sizeof host - 1);
    brindle_Message frame;  // keeps its memory from frame to frame
    for (long i = 0; i < count; ++i) {
        if (i > 0) std::this_thread::sleep_for(interval);
        double load = 0;
        struct sysinfo machine = {};
        if (getloadavg(&load, 1) != 1 || sysinfo(&machine) != 0) return 74;
        long const nowUs = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();

        // The key first, then the other fields in the order of the schema. Many records may share a frame.
        brindle_Value const values[] = {
            brindle_Value::Text(host), brindle_Value::Real(load),
            brindle_Value::Number(SUTS_INT64, static_cast<long>(machine.freeram * machine.mem_unit))};
        frame.Clear();
        if (brindle_AppendRecord(frame, spec, nowUs, values) != BRINDLE_DONE || server.Send(frame) != BRINDLE_DONE) {
            fprintf(stderr, "producer: record %ld could not be sent\n", i + 1);
            return 69;
        }
    }

    // Waits until the server has read everything. A connection that is merely dropped may lose what is on its way.
    return server.Finish(seconds(10)) == BRINDLE_DONE ? 0 : 69;
}
