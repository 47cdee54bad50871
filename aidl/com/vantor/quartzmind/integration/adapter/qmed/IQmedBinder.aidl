/*
 * Client view of the daemon's "Binder.Qmed" service (native class IQmedBinderService).
 *
 * The interface is named IQmedBinder because the generated descriptor is
 * "<package>.<interface>", and the daemon checks the token against
 * "com.vantor.quartzmind.integration.adapter.qmed.IQmedBinder".
 *
 * Every id is explicit: the wire code is id + 1 (FIRST_CALL_TRANSACTION), and the
 * numbering is frozen by the shipped daemon, not by declaration order.
 * Arrays are sent as a length followed by the elements, which is exactly the
 * daemon's "num, then num ints". Only system (1000) and root callers are served.
 */
package com.vantor.quartzmind.integration.adapter.qmed;

import com.vantor.quartzmind.integration.adapter.qmed.IQmedBinderListener;

interface IQmedBinder {
    int registerListener(IQmedBinderListener listener, int type) = 0;
    int unregisterListener(IQmedBinderListener listener) = 1;

    // 1..200 pids; anything else is answered with -1.
    int doFreezer(int action, in int[] pids) = 2;
    int setKstateMask(int mask) = 3;
    int getKstateSync(int command) = 4;

    // Code 6 is reserved for a network packet monitor the daemon never implemented:
    // it logs an error and answers UNKNOWN_TRANSACTION. Kept so the code is never reused.
    int monitorNetPacket(int enable) = 5;

    // Code 7 (id 6) is deliberately unassigned.

    int getProcUTime(int pid) = 7;
    // Returns null when the pid count is outside 1..200.
    String getProcCpuTime(int type, in int[] pids) = 8;
    String getCmdLineByPid(int pid) = 9;
    int getPidByNameAndUid(String name, int uid) = 10;
    int killProcess(in int[] pids) = 11;
    int setKWakelock(int cmd, String name, int timeout) = 12;
    int destroySockets(int uid, int pid) = 13;

    // The device daemon keeps only the low 32 bits of first and second.
    int setPowerWatchdog(int type, long first, long second, String extend) = 14;
    boolean writeFileNode(String path, String content) = 15;

    int doSpear(int pid, int rate, int type, boolean includeChildren) = 16;
    // Pause sits before stop on the wire although the native interface declares
    // them the other way round; shipped clients depend on this order.
    int pauseSpear(int pid, int time) = 17;
    int stopSpear(int pid) = 18;
    int stopSpearAll() = 19;
    int changeSpearParam(int pid, int rate) = 20;
    int readFileNode(String path, int def) = 21;
}
