// Reads the transaction numbering and the proxy's parcel calls out of the Java
// that the aidl tool generates. Pure function, safe on any thread.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace qmed::device {

struct GeneratedMethod {
    int code = -1;                    // wire code (FIRST_CALL_TRANSACTION + offset)
    std::vector<std::string> writes;  // _data.writeX calls after the token, in order
    std::vector<std::string> reads;   // _reply.readX calls after readException
};

struct GeneratedStub {
    std::string descriptor;
    std::map<std::string, GeneratedMethod> methods;
};

GeneratedStub parseGeneratedStub(const std::string& java);

}  // namespace qmed::device
