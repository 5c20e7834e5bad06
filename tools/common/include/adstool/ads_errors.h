// The texts of ADS return codes and ADS states, one table for every tool.
#ifndef ADSTOOL_ADS_ERRORS_H
#define ADSTOOL_ADS_ERRORS_H

#include <cstdint>
#include <string>

namespace adstool {

// "target port not found" for 0x6, "" for a code not in the table.
std::string adsErrorText(uint32_t code);
// "0x6 (target port not found)" or "0x1234" for a code not in the table.
std::string adsErrorLabel(uint32_t code);
// "RUN" for 5, "STOP" for 6, ... "UNKNOWN" beyond the table.
std::string adsStateName(uint16_t state);

}  // namespace adstool

#endif
