#include "uts_commandline.h"

#include <cstdio>
#include <cstdlib>

namespace {

constexpr int ARGUMENTS_MIN = 11;  // program name included
constexpr int ARGUMENTS_MAX = 12;
constexpr long US_PER_SECOND = 1000000;
constexpr int DECIMAL = 10;

int ToInt(char const* text) { return static_cast<int>(strtol(text, nullptr, DECIMAL)); }
unsigned short ToPort(char const* text) { return static_cast<unsigned short>(ToInt(text)); }

long ToWindowWidth(char const* text) {
    long widthUs;
    return __builtin_mul_overflow(strtol(text, nullptr, DECIMAL), US_PER_SECOND, &widthUs) ? 0 : widthUs;
}

}  // namespace

bool suts_ReadCommandLine(int argumentCount, char* const* arguments, suts_Settings& settings) {
    if (argumentCount != ARGUMENTS_MIN && argumentCount != ARGUMENTS_MAX) {
        fputs(
            "Args: Specfile RecoveryPath ShipHost ShipPort1 ShipPort2 DataListenPort1 DataListenPort2 TW[sec] QPort1 "
            "QPort2 <RecoverFromPath>\n ",
            stderr);
        return false;
    }
    settings.specFile = arguments[1];
    settings.recoveryPath = arguments[2];
    settings.shipHost = arguments[3];
    settings.shipPort1 = ToPort(arguments[4]);
    settings.shipPort2 = ToPort(arguments[5]);
    settings.dataPort1 = ToPort(arguments[6]);
    settings.dataPort2 = ToPort(arguments[7]);
    settings.windowWidthUs = ToWindowWidth(arguments[8]);
    settings.queryPort1 = ToInt(arguments[9]);
    settings.queryPort2 = ToInt(arguments[10]);
    settings.recoverFromPath = argumentCount == ARGUMENTS_MAX ? arguments[11] : nullptr;
    return true;
}
