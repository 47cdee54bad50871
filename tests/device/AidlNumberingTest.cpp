// Checks the Java generated from aidl/ against the wire tables the daemon serves:
// a moved code, a changed argument order or a renamed descriptor fails here.

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "daemon/IQmedBinderService.h"
#include "listener/IQmedBinderListener.h"
#include "tests/device/GeneratedStub.h"

namespace {

using qmed::device::GeneratedStub;
using qmed::device::parseGeneratedStub;

const std::string kPackageDir =
        std::string(QMED_AIDL_JAVA_DIR) + "/com/vantor/quartzmind/integration/adapter/qmed/";

struct Wire {
    int code;
    std::vector<std::string> writes;
    std::vector<std::string> reads;
};

GeneratedStub load(const std::string& file) {
    std::ifstream in(kPackageDir + file);
    EXPECT_TRUE(in.good()) << "missing generated " << kPackageDir + file;
    std::stringstream ss;
    ss << in.rdbuf();
    return parseGeneratedStub(ss.str());
}

void expectMatches(const GeneratedStub& stub, const std::map<std::string, Wire>& table) {
    EXPECT_EQ(stub.methods.size(), table.size());
    for (const auto& [name, wire] : table) {
        auto it = stub.methods.find(name);
        ASSERT_NE(it, stub.methods.end()) << name << " not generated";
        EXPECT_EQ(it->second.code, wire.code) << name;
        EXPECT_EQ(it->second.writes, wire.writes) << name;
        EXPECT_EQ(it->second.reads, wire.reads) << name;
    }
}

const std::vector<std::string> kNone;
const std::vector<std::string> kInt{"readInt"};

TEST(AidlNumbering, ServiceCodesMatchTheWireTable) {
    GeneratedStub stub = load("IQmedBinder.java");
    EXPECT_EQ(stub.descriptor, "com.vantor.quartzmind.integration.adapter.qmed.IQmedBinder");
    const std::map<std::string, Wire> table = {
            {"registerListener", {1, {"writeStrongBinder", "writeInt"}, kInt}},
            {"unregisterListener", {2, {"writeStrongBinder"}, kInt}},
            {"doFreezer", {3, {"writeInt", "writeIntArray"}, kInt}},
            {"setKstateMask", {4, {"writeInt"}, kInt}},
            {"getKstateSync", {5, {"writeInt"}, kInt}},
            {"monitorNetPacket", {6, {"writeInt"}, kInt}},
            {"getProcUTime", {8, {"writeInt"}, kInt}},
            {"getProcCpuTime", {9, {"writeInt", "writeIntArray"}, {"readString"}}},
            {"getCmdLineByPid", {10, {"writeInt"}, {"readString"}}},
            {"getPidByNameAndUid", {11, {"writeString", "writeInt"}, kInt}},
            {"killProcess", {12, {"writeIntArray"}, kInt}},
            {"setKWakelock", {13, {"writeInt", "writeString", "writeInt"}, kInt}},
            {"destroySockets", {14, {"writeInt", "writeInt"}, kInt}},
            {"setPowerWatchdog", {15, {"writeInt", "writeLong", "writeLong", "writeString"}, kInt}},
            {"writeFileNode", {16, {"writeString", "writeString"}, kInt}},
            {"doSpear", {17, {"writeInt", "writeInt", "writeInt", "writeInt"}, kInt}},
            {"pauseSpear", {18, {"writeInt", "writeInt"}, kInt}},
            {"stopSpear", {19, {"writeInt"}, kInt}},
            {"stopSpearAll", {20, kNone, kInt}},
            {"changeSpearParam", {21, {"writeInt", "writeInt"}, kInt}},
            {"readFileNode", {22, {"writeString", "writeInt"}, kInt}},
    };
    expectMatches(stub, table);
    for (const auto& [name, m] : stub.methods) {
        EXPECT_NE(m.code, 7) << name << " took the unassigned code 7";
    }
}

TEST(AidlNumbering, ListenerCodesMatchTheWireTable) {
    GeneratedStub stub = load("IQmedBinderListener.java");
    EXPECT_EQ(stub.descriptor,
              "com.vantor.quartzmind.integration.adapter.qmed.IQmedBinderListener");
    const std::map<std::string, Wire> table = {
            {"onKstateCallback", {1, {"writeInt", "writeIntArray"}, kInt}},
            {"onNetworkPacketCallback", {2, {"writeInt", "writeIntArray"}, kInt}},
            {"onStopProcSpearCallback", {3, {"writeInt", "writeString"}, kInt}},
            {"onDump", {100, {"writeRawFileDescriptor", "writeStringArray"}, kInt}},
    };
    expectMatches(stub, table);
}

TEST(AidlNumbering, GeneratedCodesAreTheCodesTheDaemonUses) {
    GeneratedStub service = load("IQmedBinder.java");
    const std::map<std::string, int> daemon = {
            {"registerListener", IQmedBinderService::REGISTER_LISTENER},
            {"unregisterListener", IQmedBinderService::UNREGISTER_LISTENER},
            {"doFreezer", IQmedBinderService::DO_FREEZER},
            {"setKstateMask", IQmedBinderService::SET_KSTATE_MASK},
            {"getKstateSync", IQmedBinderService::GET_KSTATE_SYNC},
            {"monitorNetPacket", IQmedBinderService::MONITOR_NET_PACKET},
            {"getProcUTime", IQmedBinderService::GET_PROC_UTIME},
            {"getProcCpuTime", IQmedBinderService::GET_PROC_CPU_TIME},
            {"getCmdLineByPid", IQmedBinderService::GET_CMDLINE_BY_PID},
            {"getPidByNameAndUid", IQmedBinderService::GET_PID_BY_NAME_AND_UID},
            {"killProcess", IQmedBinderService::KILL_PROCESS},
            {"setKWakelock", IQmedBinderService::SET_KWAKELOCK},
            {"destroySockets", IQmedBinderService::DESTROY_SOCKETS},
            {"setPowerWatchdog", IQmedBinderService::SET_POWER_WATCHDOG},
            {"writeFileNode", IQmedBinderService::WRITE_FILE_NODE},
            {"doSpear", IQmedBinderService::DO_SPEAR},
            {"pauseSpear", IQmedBinderService::PAUSE_SPEAR},
            {"stopSpear", IQmedBinderService::STOP_SPEAR},
            {"stopSpearAll", IQmedBinderService::STOP_SPEAR_ALL},
            {"changeSpearParam", IQmedBinderService::CHANGE_SPEAR_PARAM},
            {"readFileNode", IQmedBinderService::READ_FILE_NODE},
    };
    for (const auto& [name, code] : daemon) EXPECT_EQ(code, service.methods[name].code) << name;

    GeneratedStub listener = load("IQmedBinderListener.java");
    EXPECT_EQ(int(IQmedBinderListener::ON_KSTATE_CALLBACK),
              listener.methods["onKstateCallback"].code);
    EXPECT_EQ(int(IQmedBinderListener::ON_NETWORK_PACKET_CALLBACK),
              listener.methods["onNetworkPacketCallback"].code);
    EXPECT_EQ(int(IQmedBinderListener::ON_STOP_PROC_SPEAR_CALLBACK),
              listener.methods["onStopProcSpearCallback"].code);
    EXPECT_EQ(int(IQmedBinderListener::DUMP), listener.methods["onDump"].code);
}

TEST(AidlNumbering, ParserSeesOffsetsBodiesAndGaps) {
    const char* java = R"(
  private static final java.lang.String DESCRIPTOR = "a.b.IX";
      @Override public int f(int a) throws android.os.RemoteException
      {
          _data.writeInterfaceToken(DESCRIPTOR);
          _data.writeInt(a);
          boolean _status = mRemote.transact(Stub.TRANSACTION_f, _data, _reply, 0);
          _reply.readException();
          _result = (0!=_reply.readInt());
        }
        finally {
          _reply.recycle();
        }
    static final int TRANSACTION_f = (android.os.IBinder.FIRST_CALL_TRANSACTION + 41);
    static final int TRANSACTION_g = (android.os.IBinder.FIRST_CALL_TRANSACTION + 0);
)";
    GeneratedStub stub = parseGeneratedStub(java);
    EXPECT_EQ(stub.descriptor, "a.b.IX");
    ASSERT_EQ(stub.methods.size(), 2u);
    EXPECT_EQ(stub.methods["f"].code, 42);
    EXPECT_EQ(stub.methods["f"].writes, std::vector<std::string>{"writeInt"});
    EXPECT_EQ(stub.methods["f"].reads, std::vector<std::string>{"readInt"});
    EXPECT_EQ(stub.methods["g"].code, 1);
    EXPECT_TRUE(stub.methods["g"].writes.empty());
}

}  // namespace
