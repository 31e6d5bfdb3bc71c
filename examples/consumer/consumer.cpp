// Receives what a Brindle server ships and prints each record as a line: key, time, fields.
//
//   consumer SPEC HOST:PORT1,PORT2
//
// Start it before the server. It ends with the first server's connection, with status 0 if the last cycle was whole.
// Compile it with CMake (CMakeLists.txt beside it), or by hand:
//   c++ -std=c++20 consumer.cpp $(pkg-config --cflags --libs brindle_client) -o consumer

#include <brindle/brindle_shiplistener.h>
#include <brindle/brindle_shipreader.h>

#include <cstdio>

namespace {

void Print(brindle_Value const& value) {
    if (value.type == SUTS_STRING64) {
        printf("%.*s", static_cast<int>(value.text.size()), value.text.data());
    } else if (value.type == SUTS_FLOAT64) {
        printf("%.17g", value.real);
    } else {
        printf("%ld", value.number);
    }
}

// Walks one message. Returns whether it ends a cycle: the records of all messages since the last such one belong
// together, and a program that keeps them should commit them here.
bool PrintRecords(brindle_ShipReader& reader) {
    for (;;) {
        brindle_ShipReader::Item const item = reader.Next();
        if (item == brindle_ShipReader::CYCLE_ENDED) return true;
        // The latter is mostly another schema than the server's.
        if (item == brindle_ShipReader::MESSAGE_ENDED || item == brindle_ShipReader::MALFORMED) return false;
        if (item != brindle_ShipReader::RECORD) continue;  // keys that are new, blocks that begin
        Print(reader.Key());
        printf("\t%ld", reader.TimeUs());
        for (brindle_Value const& value : reader.Values().subspan(1)) {  // the first is the key
            putchar('\t');
            Print(value);
        }
        putchar('\n');
    }
}

}  // namespace

int main(int argc, char** argv) {
    suts_tsspec spec;
    brindle_Address address;
    if (argc != 3 || spec.Init(argv[1]) != suts_tsspec::LOADED || !brindle_ParseAddress(argv[2], address)) {
        fprintf(stderr, "Usage: consumer SPEC HOST:PORT1,PORT2\n");
        return 2;
    }
    brindle_ShipListener listener;
    if (listener.Listen(address) != BRINDLE_DONE) {
        perror("consumer: the ship ports");
        return 69;
    }

    brindle_ShipReader reader(spec);
    bool isWhole = false;
    for (;;) {
        // Read without pause: a consumer that does not keep up makes the server wait.
        switch (listener.Next(-1, std::chrono::hours(1))) {
            case brindle_ShipListener::MESSAGE:
                reader.Start(listener.Body());
                isWhole = PrintRecords(reader);
                break;
            case brindle_ShipListener::ENDED:
                return isWhole && fflush(stdout) == 0 ? 0 : 65;
            case brindle_ShipListener::FAILED:
                return 74;
            default:
                break;  // a server has come, or nothing within the wait
        }
    }
}
