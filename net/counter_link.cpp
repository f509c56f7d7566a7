#include "net/counter_link.h"

#include "platform/platform.h"

#include <algorithm>
#include <cstring>

namespace kv::net {

namespace {
uint32_t getU32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// Reads and drops `length` bytes in pieces of at most 4096.
bool discard(CDataPath &path, uint32_t length) {
    uint8_t scratch[4096];
    while (length > 0) {
        const uint32_t n = std::min<uint32_t>(length, sizeof scratch);
        if (path.read(scratch, n, nullptr) != kReadDelivered) return false;
        length -= n;
    }
    return true;
}

bool readPayload(CDataPath &path, std::vector<uint8_t> &payload, uint32_t length) {
    payload.resize(length);
    return length == 0 || path.read(payload.data(), length, nullptr) == kReadDelivered;
}
} // namespace

uint32_t linkTime() {
    const uint64_t frequency = platform::perfFrequency();
    if (frequency == 0) return static_cast<uint32_t>(platform::tickCountMs() * 1000u);
    const uint64_t ticks = platform::perfCounter();
    // Split so that ticks x 1000000 cannot overflow.
    return static_cast<uint32_t>(ticks / frequency * 1000000u + ticks % frequency * 1000000u / frequency);
}

uint8_t *putU32(uint8_t *out, uint32_t v) {
    out[0] = static_cast<uint8_t>(v);
    out[1] = static_cast<uint8_t>(v >> 8);
    out[2] = static_cast<uint8_t>(v >> 16);
    out[3] = static_cast<uint8_t>(v >> 24);
    return out + 4;
}

uint8_t *putHeader(uint8_t *out, uint8_t type, uint32_t length) {
    return putU32(out, static_cast<uint32_t>(type) << 24 | length);
}

void putU32(std::vector<uint8_t> &out, uint32_t v) {
    uint8_t b[4];
    putU32(b, v);
    out.insert(out.end(), b, b + 4);
}

void putBytes(std::vector<uint8_t> &out, const void *p, size_t n) {
    const uint8_t *b = static_cast<const uint8_t *>(p);
    if (n) out.insert(out.end(), b, b + n);
}

bool frameMessage(std::vector<uint8_t> &out, uint8_t type, const std::vector<uint8_t> &payload) {
    if (payload.size() > kLinkMaxPayload) return false;
    uint8_t header[4];
    putHeader(header, type, static_cast<uint32_t>(payload.size()));
    putBytes(out, header, 4);
    putBytes(out, payload.data(), payload.size());
    return true;
}

// ---- The library's end ----------------------------------------------------------------------

CCounterLink::CCounterLink(const char *name, uint32_t nameLength, PathFactory factory)
    : name_(name, nameLength), factory_(std::move(factory)) {
    if (!factory_) factory_ = [] { return std::unique_ptr<CDataPath>(new CDataPathSharedMem()); };
    path_ = factory_();
    receiveStep();
}

CCounterLink::~CCounterLink() {
    if (connected_) {
        send(kLinkClose, {});
        path_->flush();
    }
}

void CCounterLink::restart() {
    path_ = factory_();
    connected_ = false;
    identified_ = false;
    headerFill_ = 0;
}

void CCounterLink::broken() {
    // What the path held is lost; the next send starts over with a new connection.
    restart();
}

bool CCounterLink::send(uint8_t type, const std::vector<uint8_t> &payload) {
    std::vector<uint8_t> bytes;
    if (!frameMessage(bytes, type, payload)) return false;
    if (!path_->write(bytes.data(), static_cast<uint32_t>(bytes.size()))) {
        broken();
        return false;
    }
    return true;
}

bool CCounterLink::sendItems() {
    std::vector<uint8_t> p;
    putU32(p, static_cast<uint32_t>(items_.size()));
    for (const LinkItem &item : items_) {
        putU32(p, static_cast<uint32_t>(item.name.size()));
        putBytes(p, item.name.data(), item.name.size());
        putU32(p, item.type);
        putU32(p, static_cast<uint32_t>(item.data.size()));
        putBytes(p, item.data.data(), item.data.size());
    }
    return send(kLinkItems, p);
}

bool CCounterLink::sendCounterNames() {
    std::vector<uint8_t> p;
    putU32(p, linkTime());
    putU32(p, static_cast<uint32_t>(counters_.size()));
    for (const std::string &c : counters_) {
        putU32(p, static_cast<uint32_t>(c.size()));
        putBytes(p, c.data(), c.size());
    }
    return send(kLinkCounterNames, p);
}

bool CCounterLink::sendIdentity() {
    std::vector<uint8_t> p;
    putU32(p, static_cast<uint32_t>(name_.size()));
    putBytes(p, name_.data(), name_.size());
    const uint32_t idLength = static_cast<uint32_t>(std::strlen(kLinkIdentification));
    putU32(p, idLength);
    putBytes(p, kLinkIdentification, idLength);
    if (!send(kLinkIdentity, p)) return false;
    if (!items_.empty() && !sendItems()) return false;
    if (!sendCounterNames()) return false;
    identified_ = true;
    return path_->flush();
}

bool CCounterLink::receiveStep() {
    if (!connected_) {
        const int r = path_->connect();
        if (r == kReadFailed) {
            restart();
            return false;
        }
        if (r != kReadDelivered) return false;
        connected_ = true;
        std::vector<uint8_t> greeting;
        putU32(greeting, kLinkGreeting);
        putU32(greeting, static_cast<uint32_t>(platform::processId()));
        if (!path_->write(greeting.data(), static_cast<uint32_t>(greeting.size())) || !path_->flush()) {
            broken();
            return false;
        }
    }
    uint32_t got = 0;
    const int r = path_->read(header_ + headerFill_, 4 - headerFill_, &got);
    if (r == kReadFailed) {
        broken();
        return false;
    }
    headerFill_ += got;
    if (headerFill_ < 4) return true;
    headerFill_ = 0;
    const uint32_t header = getU32(header_);
    const uint8_t type = static_cast<uint8_t>(header >> 24);
    const uint32_t length = header & 0xFFFFFF;
    switch (type) {
    case kLinkIdentify:
        if (!discard(*path_, length)) break;
        return sendIdentity();
    case kLinkEdit: {
        std::vector<uint8_t> payload;
        if (length < 4 || !readPayload(*path_, payload, length)) break;
        const uint32_t index = getU32(payload.data());
        if (index >= items_.size()) break; // an unknown item: the peer is not one we can talk to
        items_[index].data.assign(payload.begin() + 4, payload.end());
        edited_.erase(std::remove(edited_.begin(), edited_.end(), index), edited_.end());
        edited_.insert(edited_.begin(), index);
        return true;
    }
    case kLinkClose:
        // The server asks to start over: a new path, connected again at once.
        restart();
        receiveStep();
        return connected_;
    default:
        if (!discard(*path_, length)) break;
        return true;
    }
    broken();
    return false;
}

void CCounterLink::waitForConnection(CCounterLink *const *links, uint32_t count, uint32_t timeoutMs) {
    std::vector<bool> done(count, false);
    const uint64_t start = platform::tickCountMs();
    std::string mark = "connected";
    uint32_t low = 0, high = count;
    for (;;) {
        for (uint32_t i = low; i < high; ++i)
            if (!done[i] && links[i]->sendMark(mark.data(), static_cast<uint32_t>(mark.size())))
                done[i] = true;
        while (low < high && done[low])
            ++low;
        while (high > low && done[high - 1])
            --high;
        const uint64_t elapsed = platform::tickCountMs() - start;
        if (low == high || elapsed > timeoutMs) return;
        platform::sleepMs(1);
        mark = "connected after " + std::to_string(platform::tickCountMs() - start) + "ms";
    }
}

bool CCounterLink::sendMark(const char *text, uint32_t length) {
    if (!receiveStep() && !connected_) return false;
    std::vector<uint8_t> p;
    putU32(p, linkTime());
    putBytes(p, text, length);
    return connected_ && send(kLinkMark, p);
}

bool CCounterLink::sendProcessingBegin(const char *text, uint32_t length, uint32_t frame) {
    receiveStep();
    if (!connected_) return false;
    std::vector<uint8_t> p;
    putU32(p, linkTime());
    putU32(p, frame);
    putU32(p, length);
    putBytes(p, text, length);
    return send(kLinkBegin, p);
}

bool CCounterLink::sendProcessingEnd() {
    receiveStep();
    if (!connected_) return false;
    std::vector<uint8_t> p;
    putU32(p, linkTime());
    return send(kLinkEnd, p);
}

bool CCounterLink::sendMessages(const uint8_t *bytes, uint32_t length) {
    receiveStep();
    if (!connected_) return false;
    if (!path_->write(bytes, length)) {
        broken();
        return false;
    }
    return true;
}

bool CCounterLink::defineItems(const LinkItem *items, uint32_t count) {
    receiveStep();
    items_.assign(items, items + count);
    edited_.clear();
    return !(connected_ && identified_) || sendItems();
}

bool CCounterLink::takeNextEditedItem(uint32_t *index, uint32_t *length, const uint8_t **data) {
    if (edited_.empty()) return false;
    *index = edited_.front();
    edited_.erase(edited_.begin());
    takenData_ = items_[*index].data;
    *length = static_cast<uint32_t>(takenData_.size());
    *data = takenData_.data();
    return true;
}

bool CCounterLink::defineCounters(const std::string *names, uint32_t count) {
    receiveStep();
    counters_.assign(names, names + count);
    return !(connected_ && identified_) || sendCounterNames();
}

bool CCounterLink::sendCounterValues(const uint32_t *values) {
    receiveStep();
    if (!connected_) return false;
    std::vector<uint8_t> p;
    p.reserve(8 + 4 * counters_.size());
    putU32(p, linkTime());
    for (size_t i = 0; i < counters_.size(); ++i)
        putU32(p, values[i]);
    return send(kLinkCounterValues, p);
}

// ---- The server's end -----------------------------------------------------------------------

CCounterServer::CCounterServer(std::unique_ptr<CDataPath> path, uint32_t channel)
    : path_(std::move(path)), channel_(channel) {
    if (!path_) path_.reset(new CDataPathSharedMem(true));
}

CCounterServer::~CCounterServer() {
    if (auto *shm = dynamic_cast<CDataPathSharedMem *>(path_.get())) shm->unlinkAll();
}

bool CCounterServer::listen() {
    auto *shm = dynamic_cast<CDataPathSharedMem *>(path_.get());
    return shm && shm->listen(channel_);
}

bool CCounterServer::handle(uint8_t type, const uint8_t *p, uint32_t length) {
    const uint8_t *end = p + length;
    auto u32 = [&](uint32_t &v) {
        if (end - p < 4) return false;
        v = getU32(p);
        p += 4;
        return true;
    };
    auto bytes = [&](std::string &s, uint32_t n) {
        if (static_cast<uint32_t>(end - p) < n) return false;
        s.assign(reinterpret_cast<const char *>(p), n);
        p += n;
        return true;
    };
    uint32_t n = 0;
    switch (type) {
    case kLinkIdentity: {
        std::string name, id;
        if (!u32(n) || !bytes(name, n) || !u32(n) || !bytes(id, n)) return false;
        linkName = name;
        identification = id;
        return true;
    }
    case kLinkItems: {
        uint32_t count;
        if (!u32(count) || count > length / 12) return false;
        std::vector<LinkItem> got(count);
        for (LinkItem &item : got) {
            std::string data;
            if (!u32(n) || !bytes(item.name, n) || !u32(item.type) || !u32(n) || !bytes(data, n))
                return false;
            item.data.assign(data.begin(), data.end());
        }
        items = std::move(got);
        return true;
    }
    case kLinkCounterNames: {
        uint32_t time, count;
        if (!u32(time) || !u32(count) || count > length / 4) return false;
        std::vector<std::string> names(count);
        for (std::string &name : names)
            if (!u32(n) || !bytes(name, n)) return false;
        counterNames = std::move(names);
        values.assign(counterNames.size(), 0);
        return true;
    }
    case kLinkCounterValues: {
        uint32_t time;
        if (!u32(time)) return false;
        // Values sent before the names came are taken by position.
        std::vector<uint32_t> got((end - p) / 4);
        for (uint32_t &v : got)
            u32(v);
        values = std::move(got);
        valueQueue.push_back(values);
        valuesTime = time;
        ++valueMessages;
        return true;
    }
    case kLinkMark: {
        Event e{type, 0, 0, {}};
        if (!u32(e.time) || !bytes(e.text, static_cast<uint32_t>(end - p))) return false;
        events.push_back(std::move(e));
        return true;
    }
    case kLinkBegin: {
        Event e{type, 0, 0, {}};
        if (!u32(e.time) || !u32(e.frame) || !u32(n) || !bytes(e.text, n)) return false;
        events.push_back(std::move(e));
        return true;
    }
    case kLinkEnd: {
        Event e{type, 0, 0, {}};
        if (!u32(e.time)) return false;
        events.push_back(std::move(e));
        return true;
    }
    case kLinkClose:
        closedByLibrary = true;
        return true;
    default:
        return true; // unknown messages are skipped
    }
}

bool CCounterServer::poll() {
    if (!handshaken_) {
        const int r = path_->acceptHandshake();
        if (r == kReadFailed) return false;
        if (r != kReadDelivered) return true;
        handshaken_ = true;
    }
    if (!greeted_) {
        uint32_t got = 0;
        if (path_->read(greeting_ + greetingFill_, 8 - greetingFill_, &got) == kReadFailed) return false;
        greetingFill_ += got;
        if (greetingFill_ < 8) return true;
        if (getU32(greeting_) != kLinkGreeting) return false;
        processId = getU32(greeting_ + 4);
        greeted_ = true;
        std::vector<uint8_t> ask;
        frameMessage(ask, kLinkIdentify, {});
        if (!path_->write(ask.data(), static_cast<uint32_t>(ask.size())) || !path_->flush()) return false;
    }
    std::vector<uint8_t> payload;
    for (;;) {
        uint32_t got = 0;
        const int r = path_->read(header_ + headerFill_, 4 - headerFill_, &got);
        if (r == kReadFailed) return false;
        headerFill_ += got;
        if (headerFill_ < 4) return true;
        headerFill_ = 0;
        const uint32_t header = getU32(header_);
        if (!readPayload(*path_, payload, header & 0xFFFFFF)) return false;
        if (!handle(static_cast<uint8_t>(header >> 24), payload.data(), header & 0xFFFFFF)) return false;
        if (closedByLibrary) return false;
    }
}

bool CCounterServer::sendEdit(uint32_t index, const void *data, uint32_t length) {
    if (!greeted_) return false;
    std::vector<uint8_t> p, bytes;
    putU32(p, index);
    putBytes(p, data, length);
    if (!frameMessage(bytes, kLinkEdit, p)) return false;
    return path_->write(bytes.data(), static_cast<uint32_t>(bytes.size())) && path_->flush();
}

bool CCounterServer::sendClose() {
    if (!greeted_) return false;
    std::vector<uint8_t> bytes;
    frameMessage(bytes, kLinkClose, {});
    return path_->write(bytes.data(), static_cast<uint32_t>(bytes.size())) && path_->flush();
}

} // namespace kv::net
