/*
 * Callback object a client registers with "Binder.Qmed". The daemon only calls it.
 *
 * Ids are explicit (wire code = id + 1). The daemon reads the first int32 of the
 * reply as the result, without an exception header.
 */
package com.vantor.quartzmind.integration.adapter.qmed;

interface IQmedBinderListener {
    // len is a byte count, yet the daemon ships len 32-bit words (len * 4 bytes):
    // both sides agree on that, so data arrives as an int array of len elements.
    int onKstateCallback(int len, in int[] data) = 0;
    int onNetworkPacketCallback(int count, in int[] data) = 1;
    int onStopProcSpearCallback(int pid, String reason) = 2;

    // Forwarded dump request: a raw fd (not a ParcelFileDescriptor, which would add a
    // presence word) then the arguments. Not called "dump" because the generated Java
    // stub extends Binder, whose void dump(FileDescriptor, String[]) would clash.
    int onDump(in FileDescriptor fd, in String[] args) = 99;
}
