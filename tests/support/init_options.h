// The init string the host hands to intf_initProperty, written from named settings
// (header-only, no Qt): "context#cacheOnly#stored#retries#gap".
//
//   InitOptions().mergeGap(10).text()          -> "1#0#0#3#10"
//   InitOptions().cacheOnlyWrites().context(7) -> "7#1#0#3#64"
//
// Tests of the parser of that string pass their texts as they are (Host::initWithText).
#ifndef ADS_TEST_INIT_OPTIONS_H
#define ADS_TEST_INIT_OPTIONS_H

#include <string>

namespace adstest {

class InitOptions {
public:
    // The callback context every value-change report carries.
    InitOptions& context(int v)
    {
        context_ = v;
        return *this;
    }
    // Writes only update the cache; nothing goes to the PLC.
    InitOptions& cacheOnlyWrites(bool on = true)
    {
        cacheOnly_ = on ? 1 : 0;
        return *this;
    }
    // The third field, which the driver only stores.
    InitOptions& storedField(int v)
    {
        stored_ = v;
        return *this;
    }
    // Sends of one frame before the driver gives up on it.
    InitOptions& retryLimit(int v)
    {
        retries_ = v;
        return *this;
    }
    // The largest gap bridged when addresses are merged (also the piece size of blocks).
    InitOptions& mergeGap(int v)
    {
        gap_ = v;
        return *this;
    }

    std::string text() const
    {
        return std::to_string(context_) + "#" + std::to_string(cacheOnly_) + "#" + std::to_string(stored_) + "#"
            + std::to_string(retries_) + "#" + std::to_string(gap_);
    }

private:
    // The panel's usual settings: context 1, writes go to the PLC, three sends, 64-byte gaps.
    int context_ = 1;
    int cacheOnly_ = 0;
    int stored_ = 0;
    int retries_ = 3;
    int gap_ = 64;
};

}  // namespace adstest

#endif  // ADS_TEST_INIT_OPTIONS_H
