// The borders of packets in a TCP byte stream: a packet is one BER SEQUENCE,
// found by its tag and length alone.
#pragma once

namespace brel_lib {

// Framing: >0 length of the first packet, 0 more bytes needed, -1 invalid stream.
typedef int (*BrelNetPacketCompleteFun)(const void* pData, unsigned int nDataLen);
int asn_packet_complete(const void* pData, unsigned int nDataLen);
// The length of the first packet as soon as its head is in: >0 its whole
// length, 0 head incomplete, -1 for a head the framing would refuse. Lets a
// reader stop at a packet's end; the framing above still decides.
int asn_packet_length(const void* pData, unsigned int nDataLen);
// Largest packet the framing accepts.
const unsigned int MAX_LEN = 0x8000000;

// Limit on the bytes a connection may hold while a packet is incomplete; 0 for none.
void SetBrelRecvPacketMaxSize(unsigned int nSize);
unsigned int GetBrelRecvPacketMaxSize();

} // namespace brel_lib
