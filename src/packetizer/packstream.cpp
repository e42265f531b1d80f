#include <cstring>

#include "packetizer/packetizer.h"

__tag_PACK_STREAM::__tag_PACK_STREAM() {
    PackStreamInit(this);
}

void PackStreamInit(PACK_STREAM* stream) {
    stream->fmt.Reset();
    // Every member after the format is plain data.
    unsigned char* begin = reinterpret_cast<unsigned char*>(&stream->bytestream);
    unsigned char* end = reinterpret_cast<unsigned char*>(stream + 1);
    memset(begin, 0, static_cast<size_t>(end - begin));
}
