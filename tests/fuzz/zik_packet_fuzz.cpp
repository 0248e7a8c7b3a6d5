// libFuzzer target: any bytes given to the packet decoder, and to the
// decoders of the records that travel encrypted, must fail cleanly or decode
// into something that encodes and prints again.
#include <stddef.h>
#include <stdint.h>

#include <sstream>
#include <vector>

#include "asn_parse.h"
#include "zik_pkt.h"

namespace {

template <class T>
void Exercise(const uint8_t* pData, size_t nSize)
{
    std::vector<char> input(pData, pData + nSize);
    T value;
    unsigned int nUsed = 0;
    if (brel_lib::ParseFromBuffer(value, nUsed, input.data(), static_cast<unsigned int>(input.size())) != 0) return;
    if (nUsed > nSize) __builtin_trap();
    std::ostringstream os;
    value.Print(os);
    brel_lib::CPacketBuffer block("Fuzz", 0);
    unsigned int nOut = 0;
    if (block.PacketObjToBuffer(nOut, value) == nullptr) __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    if (nSize == 0) return 0;
    // The first byte picks the decoder, so one corpus reaches all of them.
    switch (pData[0] % 4) {
    case 0:
        Exercise<ZikPacket>(pData + 1, nSize - 1);
        break;
    case 1:
        Exercise<ReqWorkCmdCreateEncData>(pData + 1, nSize - 1);
        break;
    case 2:
        Exercise<ReqWorkFileDstCreate2EncData>(pData + 1, nSize - 1);
        break;
    default:
        Exercise<RspSessionKeyEncData>(pData + 1, nSize - 1);
        break;
    }
    return 0;
}
