// TlsStream: a ByteStream over TLS 1.2 or newer that always knows whom it speaks to.
//
// Purpose    The server shows a certificate for the host that was dialled, signed by an authority of the ca
//            file (or of this system), or there is no link. This side shows its own when it has one.
// Thread     As ByteStream: one. The files are read when a stream is made, so a renewed certificate is
//            taken up by the next connection.
#pragma once

#include <memory>
#include <string>

#include "store/redis/ByteStream.h"
#include "store/redis/StoreAddress.h"

namespace pvss::redis {

/// A stream over a connected, non-blocking socket to `host`, which is the name or number to verify. The
/// socket is the stream's, or closed when there is none: null, with the reason in `error`, when a file cannot
/// be used. Blocks for the reading of the files only.
std::unique_ptr<ByteStream> makeTlsStream(int socket, const TlsFiles& files, const std::string& host,
                                          std::string& error);

}  // namespace pvss::redis
