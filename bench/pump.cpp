// The bare pump: what any program must pay that reads the bytes, keeps them in a file and sends them on.
#include <fcntl.h>

#include "pairs.h"
#include "sutl_frame.h"

int main(int argc, char** argv) {
    bench_StandIn link(argc, argv);
    link.Open();
    sutl_Descriptor const file = sutl_OpenFile((link.directory + "/F1").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0700);
    unsigned char bytes[SUTL_TRANSFER_BYTES_MAX];
    while (true) {
        long const count = sutl_ReadSome(link.producer.FirstConnection(), bytes, sizeof bytes);
        if (count <= 0) return count == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
        auto const size = static_cast<std::size_t>(count);
        if (sutl_FileWrite(file.Get(), bytes, size) != count) return EXIT_FAILURE;
        if (!bench_Send(link.consumer.first.Get(), {bytes, size}, size)) return EXIT_FAILURE;
    }
}
