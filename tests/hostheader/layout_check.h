// One field of a record as the host header and the driver's header lay it out.
#pragma once
#include <cstddef>
#include <vector>

struct RecordLayout {
    const char* field;
    std::size_t hostOffset, driverOffset;
    std::size_t hostSize, driverSize;
};

// Every record and field of the host header beside the driver's (layout_check.cpp).
std::vector<RecordLayout> hostRecordLayouts();
