// Coding steps that the value classes share: the header in front of a
// value's content, and the element loop of a constructed value (constructed
// strings and SEQUENCE OF lists). Internal to the codec's sources.
#pragma once

#include <stdio.h>

#include "asn_buf.h"

// Writes the definite length and the one-octet tag cTagOctet in front of the
// content of contentLen bytes, which is already written. Returns the whole length.
inline AsnLen BEncHeader(AsnBuf& b, AsnLen contentLen, unsigned char cTagOctet)
{
    AsnLen len = contentLen + BEncDefLen(b, contentLen);
    b.PutByteRvs(cTagOctet);
    return len + 1;
}

// Reads the elements of a constructed value whose content is elmtLen bytes
// long, or runs up to the end-of-contents octets of an indefinite length.
// For each element the tag is read and decodeElmt(tag, consumed) reads the
// rest of it, counting what it reads into consumed. Returns the bytes read.
template <class DecodeElmt>
AsnLen BDecElmts(AsnBuf& b, AsnLen elmtLen, DecodeElmt&& decodeElmt)
{
    AsnLen consumed = 0;
    while (elmtLen == INDEFINITE_LEN || consumed < elmtLen) {
        AsnTag tag = BDecTag(b, consumed);
        if (tag == 0 && elmtLen == INDEFINITE_LEN) {
            unsigned char c = b.GetByte();
            if (c != 0 || b.ReadError()) fprintf(stderr, "Warning - second octet of EOC not zero\n");
            ++consumed;
            break;
        }
        decodeElmt(tag, consumed);
    }
    return consumed;
}
