#include "tests/device/GeneratedStub.h"

// GCC 12 at -O1 warns inside libstdc++'s regex compiler (a known false positive).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#include <sstream>

namespace qmed::device {

GeneratedStub parseGeneratedStub(const std::string& java) {
    static const std::regex kDescriptor(R"(DESCRIPTOR = "([^"]*)\";)");
    static const std::regex kCode(
            R"(TRANSACTION_(\w+) = \(android\.os\.IBinder\.FIRST_CALL_TRANSACTION \+ (\d+)\);)");
    static const std::regex kWrite(R"(_data\.(write\w+)\()");
    static const std::regex kTransact(R"(transact\(Stub\.TRANSACTION_(\w+),)");
    static const std::regex kRead(R"(_reply\.(read\w+)\()");

    GeneratedStub stub;
    std::vector<std::string> writes;
    std::string current;  // method whose reply is being read
    std::istringstream in(java);
    std::string line;
    std::smatch m;
    while (std::getline(in, line)) {
        if (std::regex_search(line, m, kDescriptor) && stub.descriptor.empty()) {
            stub.descriptor = m[1];
        } else if (std::regex_search(line, m, kCode)) {
            stub.methods[m[1]].code = 1 + std::stoi(m[2]);
        } else if (line.find("_data.writeInterfaceToken") != std::string::npos) {
            writes.clear();
            current.clear();
        } else if (std::regex_search(line, m, kWrite)) {
            writes.push_back(m[1]);
        } else if (std::regex_search(line, m, kTransact)) {
            current = m[1];
            stub.methods[current].writes = writes;
        } else if (line.find("finally") != std::string::npos) {
            current.clear();
        } else if (!current.empty() && std::regex_search(line, m, kRead) &&
                   m[1] != "readException") {
            stub.methods[current].reads.push_back(m[1]);
        }
    }
    return stub;
}

}  // namespace qmed::device
