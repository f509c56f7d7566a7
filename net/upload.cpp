// Sending the finished trace file to the client, through the server's data queue, in 4096-byte
// pieces with progress lines.
#include "base/messages.h"
#include "base/settings_record.h"
#include "net/server.h"

#include <cstdio>

namespace kv::net {

void CNetworkServer::uploadTrace(Settings &s) {
    const char *path = s.outputFilename.c_str();
    msg::info("Opening Trace to Read");
    std::FILE *f = std::fopen(path, "rb");
    if (!f) {
        msg::info("Error opening file: %s", path);
        sendText(CZandString::format("Failed to open trace file '%s'. Aborting Upload\n", path));
        return;
    }
    // The size travels as 32 bits: files of 4 GiB or more are not supported.
    platform::fileSeek(f, 0, SEEK_END);
    const uint32_t size = static_cast<uint32_t>(platform::fileTell(f));
    platform::fileSeek(f, 0, SEEK_SET);
    if (size == 0) {
        sendText(CZandString::format("Trace file '%s' is 0 bytes. Aborting Upload\n", path));
        std::fclose(f);
        return;
    }
    sendText(CZandString::format("Starting to send trace file '%s', Size %d bytes\n", path,
                                 static_cast<int>(size)));
    msg::info("Creating Buffer");
    uint8_t piece[4096];
    uint32_t sent = 0;
    int lastProgress = 0;
    const uint32_t pieces = size / 4096;
    for (uint32_t i = 0; i < pieces; ++i) {
        const int progress =
            static_cast<int>(static_cast<float>(i) / (static_cast<float>(size) * (1.0f / 4096.0f)) * 100.0f);
        if (progress != lastProgress) {
            lastProgress = progress;
            sendText(CZandString::format("Transferring... %d%%\n", progress));
        }
        if (std::fread(piece, 4096, 1, f) != 1) {
            msg::info("Error reading file: %d", std::feof(f) ? 1 : 0);
            std::fclose(f);
            return;
        }
        if (!queueData(piece, 4096)) {
            std::fclose(f);
            msg::info("An error occurred while sending our data. Ceasing to send data.");
            return;
        }
        sent += 4096;
        sleep_(1);
    }
    const uint32_t tail = size % 4096;
    if (tail != 0) {
        if (std::fread(piece, tail, 1, f) != 1) {
            msg::info("Error reading file: %d\n", std::feof(f) ? 1 : 0);
            std::fclose(f);
            return;
        }
        sent += tail;
        queueData(piece, tail);
    }
    flush(true);
    sendEndMarker();
    sendText(CZandString::format("Finished sending trace file. Size %d bytes\n", static_cast<int>(sent)));
    std::fclose(f);
}

} // namespace kv::net
