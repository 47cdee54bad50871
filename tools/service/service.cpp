// Host `service` tool with the platform command's syntax:
//   service list
//   service check SERVICE
//   service call SERVICE CODE [i32 N | i64 N | f N | d N | s16 STR | null | fd PATH] ...
// Replies print as "Result: Parcel(...)". When transact returns an error the reply prints
// as "Result: Parcel(NULL)" (as on the platform) and the status is written to stderr as the
// line "status: N" with N the signed decimal status (for example "status: -74" for an
// unknown transaction). The exit code follows the platform: 10 for usage errors and missing
// services, 0 otherwise.
#include <binder/IBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <utils/String8.h>

#include <iostream>
#include <string>

#include "ParcelFormat.h"

using namespace android;

namespace {

String16 interfaceName(const sp<IBinder>& service) {
    if (service == nullptr) return String16();
    Parcel data, reply;
    if (service->transact(IBinder::INTERFACE_TRANSACTION, data, &reply) == NO_ERROR) {
        return reply.readString16();
    }
    return String16();
}

std::string toUtf8(const String16& s) {
    return std::string(String8(s).string());
}

void usage() {
    std::cout << "Usage: service [-h|-?]\n"
                 "       service list\n"
                 "       service check SERVICE\n"
                 "       service call SERVICE CODE [i32 N | i64 N | f N | d N | s16 STR | null"
                 " | fd f] ...\n"
                 "Options:\n"
                 "   i32: Write the 32-bit integer N into the send parcel.\n"
                 "   i64: Write the 64-bit integer N into the send parcel.\n"
                 "   f:   Write the 32-bit single-precision number N into the send parcel.\n"
                 "   d:   Write the 64-bit double-precision number N into the send parcel.\n"
                 "   s16: Write the UTF-16 string STR into the send parcel.\n"
                 "  null: Write a null binder into the send parcel.\n"
                 "    fd: Write a file descriptor for the file f into the send parcel.\n";
}

int callService(int argc, char** argv, int optind) {
    if (optind + 1 >= argc) {
        std::cerr << "service: No service specified" << std::endl;
        usage();
        return 10;
    }
    const int serviceArg = optind;
    sp<IBinder> service = defaultServiceManager()->checkService(String16(argv[optind++]));
    const String16 ifName = interfaceName(service);
    const int32_t code = atoi(argv[optind++]);
    if (service == nullptr || ifName.size() == 0) {
        std::cerr << "service: Service " << argv[serviceArg] << " does not exist" << std::endl;
        return 10;
    }
    Parcel data, reply;
    data.writeInterfaceToken(ifName);
    while (optind < argc) {
        const char* opt = argv[optind++];
        const bool hasValue = optind < argc;
        if (strcmp(opt, "i32") == 0 && hasValue) {
            data.writeInt32(atoi(argv[optind++]));
        } else if (strcmp(opt, "i64") == 0 && hasValue) {
            data.writeInt64(atoll(argv[optind++]));
        } else if (strcmp(opt, "s16") == 0 && hasValue) {
            data.writeString16(String16(argv[optind++]));
        } else if (strcmp(opt, "f") == 0 && hasValue) {
            data.writeFloat(float(atof(argv[optind++])));
        } else if (strcmp(opt, "d") == 0 && hasValue) {
            data.writeDouble(atof(argv[optind++]));
        } else if (strcmp(opt, "null") == 0) {
            data.writeStrongBinder(nullptr);
        } else if (strcmp(opt, "fd") == 0 && hasValue) {
            const char* path = argv[optind++];
            const int fd = open(path, O_RDONLY | O_CLOEXEC);
            if (fd < 0) {
                std::cerr << "service: could not open '" << path << "'" << std::endl;
                usage();
                return 10;
            }
            data.writeFileDescriptor(fd, true);
        } else {
            std::cerr << "service: unknown option " << opt << std::endl;
            usage();
            return 10;
        }
    }
    const status_t err = service->transact(uint32_t(code), data, &reply);
    if (err != NO_ERROR) reply.freeData();
    std::cout << "Result: " << formatParcelBytes(reply.data(), reply.dataSize()) << std::endl;
    if (err != NO_ERROR) std::cerr << "status: " << err << std::endl;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int optind = 1;
    if (optind < argc && (strcmp(argv[optind], "-h") == 0 || strcmp(argv[optind], "-?") == 0)) {
        usage();
        return 0;
    }
    if (optind >= argc) {
        usage();
        return 0;
    }
    sp<IServiceManager> sm = defaultServiceManager();
    const char* cmd = argv[optind++];
    if (strcmp(cmd, "list") == 0) {
        Vector<String16> services = sm->listServices();
        std::cout << "Found " << services.size() << " services:" << std::endl;
        for (size_t i = 0; i < services.size(); i++) {
            sp<IBinder> service = sm->checkService(services[i]);
            std::cout << i << "\t" << toUtf8(services[i]) << ": [" << toUtf8(interfaceName(service))
                      << "]" << std::endl;
        }
        return 0;
    }
    if (strcmp(cmd, "check") == 0) {
        if (optind >= argc) {
            std::cerr << "service: No service specified" << std::endl;
            usage();
            return 10;
        }
        sp<IBinder> service = sm->checkService(String16(argv[optind]));
        std::cout << "Service " << argv[optind] << (service == nullptr ? ": not found" : ": found")
                  << std::endl;
        return 0;
    }
    if (strcmp(cmd, "call") == 0) return callService(argc, argv, optind);
    std::cerr << "service: Unknown command " << cmd << std::endl;
    usage();
    return 10;
}
