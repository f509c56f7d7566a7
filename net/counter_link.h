// The counter link: framed messages over a data path between the library and a local performance
// server. The library publishes its software counters, timeline marks and editable items (the
// render-state overrides); the server asks for identification, edits items and may close the link.
// Every message is a u32 header (type in the top 8 bits, payload length in the low 24) and a
// payload of little-endian u32s and bytes.
#pragma once

#include "net/data_path.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kv::net {

enum LinkMessage : uint8_t {
    kLinkIdentify = 0x40,
    kLinkIdentity = 0x50,
    kLinkItems = 0x64,
    kLinkEdit = 0x70,
    kLinkCounterNames = 0x84,
    kLinkCounterValues = 0x88,
    kLinkClose = 0x90,
    kLinkMark = 0xB8,
    kLinkBegin = 0xB9,
    kLinkEnd = 0xBA,
};

constexpr uint32_t kLinkMaxPayload = 0xFFFFFF;
constexpr uint32_t kLinkGreeting = 14;
constexpr const char *kLinkIdentification = "Miravel Developer v14.148";

struct LinkItem {
    std::string name;
    uint32_t type = 0;
    std::vector<uint8_t> data;
};

// Microseconds on the link's clock (u32, wrapping).
uint32_t linkTime();

// Appends a framed message; false (and nothing appended) when the payload is too long.
bool frameMessage(std::vector<uint8_t> &out, uint8_t type, const std::vector<uint8_t> &payload);
void putU32(std::vector<uint8_t> &out, uint32_t v);
void putBytes(std::vector<uint8_t> &out, const void *p, size_t n);
// The same framing in place, for messages built in a fixed buffer (the timeline's spans): each
// returns the byte after what it wrote. The caller keeps `length` within kLinkMaxPayload.
uint8_t *putU32(uint8_t *out, uint32_t v);
uint8_t *putHeader(uint8_t *out, uint8_t type, uint32_t length);

// The library's end.
class CCounterLink {
public:
    // Makes the link (copying the name) and tries a first connect. `path` replaces the shared-memory
    // path (tests); a factory makes the fresh one a server's close asks for.
    using PathFactory = std::function<std::unique_ptr<CDataPath>()>;
    CCounterLink(const char *name, uint32_t nameLength, PathFactory factory = nullptr);
    // Sends the close message.
    ~CCounterLink();

    static void waitForConnection(CCounterLink *const *links, uint32_t count, uint32_t timeoutMs);

    bool sendMark(const char *text, uint32_t length);
    bool sendProcessingBegin(const char *text, uint32_t length, uint32_t frame);
    bool sendProcessingEnd();
    // Messages framed by the caller (a batch of timeline marks and spans), written as they are.
    bool sendMessages(const uint8_t *bytes, uint32_t length);
    bool defineItems(const LinkItem *items, uint32_t count);
    // The next edited item, newest first: its index, data length and data (valid until the next
    // receive step). False when no edit is waiting.
    bool takeNextEditedItem(uint32_t *index, uint32_t *length, const uint8_t **data);
    bool defineCounters(const std::string *names, uint32_t count);
    bool sendCounterValues(const uint32_t *values);
    bool flush() { return connected_ && path_->flush(); }
    bool connected() const { return connected_; }
    // Runs the receive step alone (what every send does first).
    bool poll() { return receiveStep(); }

private:
    bool receiveStep();
    bool send(uint8_t type, const std::vector<uint8_t> &payload);
    bool sendIdentity();
    bool sendItems();
    bool sendCounterNames();
    void restart();
    void broken();

    std::string name_;
    PathFactory factory_;
    std::unique_ptr<CDataPath> path_;
    bool connected_ = false;
    bool identified_ = false; // the identity went out: later definitions are sent as they come
    uint8_t header_[4] = {};
    uint32_t headerFill_ = 0;
    std::vector<LinkItem> items_;
    std::vector<uint32_t> edited_; // newest first, each index once
    std::vector<std::string> counters_;
    std::vector<uint8_t> takenData_;
};

// The server's end, as `kalvoren perf` and the tests use it.
class CCounterServer {
public:
    struct Event {
        uint8_t type;
        uint32_t time;
        uint32_t frame;
        std::string text;
    };
    explicit CCounterServer(std::unique_ptr<CDataPath> path = nullptr, uint32_t channel = 1);
    ~CCounterServer();

    // Publishes the channel (shared-memory path only).
    bool listen();
    // Makes what progress it can: handshake, greeting, messages. False once the link broke.
    bool poll();
    bool connected() const { return greeted_; }
    bool sendEdit(uint32_t index, const void *data, uint32_t length);
    bool sendClose();

    // What the library told.
    uint32_t processId = 0;
    std::string linkName, identification;
    std::vector<LinkItem> items;
    std::vector<std::string> counterNames;
    std::vector<uint32_t> values;
    uint32_t valuesTime = 0;
    uint64_t valueMessages = 0;
    std::vector<std::vector<uint32_t>> valueQueue; // every values message, taken by the caller
    std::vector<Event> events;                     // marks and timeline, taken by the caller
    bool closedByLibrary = false;

    // Decodes one message payload into the fields above; false when it is malformed.
    bool handle(uint8_t type, const uint8_t *payload, uint32_t length);

private:
    std::unique_ptr<CDataPath> path_;
    uint32_t channel_;
    bool handshaken_ = false, greeted_ = false;
    uint8_t greeting_[8] = {};
    uint32_t greetingFill_ = 0;
    uint8_t header_[4] = {};
    uint32_t headerFill_ = 0;
};

} // namespace kv::net
