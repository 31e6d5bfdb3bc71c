// The command line, the server's only configuration.
#pragma once

// What the arguments say. Texts are those of the process, valid for its life.
struct suts_Settings {
    char const* specFile;
    char const* recoveryPath;
    char const* shipHost;
    unsigned short shipPort1;
    unsigned short shipPort2;
    unsigned short dataPort1;
    unsigned short dataPort2;
    long windowWidthUs;  // 0 where the product of the argument and a second's microseconds is beyond 64 bits
    int queryPort1;
    int queryPort2;
    char const* recoverFromPath;  // null where the argument is absent
};

// Takes the arguments, program name included, apart. False after a wrong count, with the usage text on standard error.
// Numbers are converted as far as they are numbers, and not checked.
[[nodiscard]] bool suts_ReadCommandLine(int argumentCount, char* const* arguments, suts_Settings& settings);
