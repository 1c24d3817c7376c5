#include "Host.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace {

// What a command's completion procedure is given; it may come when nobody waits for it any more.
struct Ticket {
    std::shared_ptr<Outcome> outcome;
};

// Guards the tickets and, while a completion may come on another thread, the outcomes.
std::mutex g_mutex;

Outcome lookAt(const std::shared_ptr<Outcome>& outcome)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    return *outcome;
}

// Tickets are kept: one whose completion never comes would be lost otherwise.
Ticket* newTicket(const std::shared_ptr<Outcome>& outcome)
{
    static std::vector<std::unique_ptr<Ticket>> tickets;
    const std::lock_guard<std::mutex> lock(g_mutex);
    tickets.push_back(std::make_unique<Ticket>(Ticket{outcome}));
    return tickets.back().get();
}

template <typename Procedure>
auto plain(Procedure procedure)
{
    return reinterpret_cast<void (*)()>(procedure);
}

}  // namespace

std::vector<std::string> List::texts() const
{
    std::vector<std::string> all;
    std::string text;
    for (const std::uint8_t byte : array) {
        if (byte == 0) {
            all.push_back(text);
            text.clear();
        } else {
            text += static_cast<char>(byte);
        }
    }
    return all;
}

std::vector<std::uint32_t> List::numbers() const
{
    std::vector<std::uint32_t> all(array.size() / sizeof(std::uint32_t));
    if (!all.empty()) {
        std::memcpy(all.data(), array.data(), all.size() * sizeof(std::uint32_t));
    }
    return all;
}

std::string List::current() const
{
    const std::vector<std::string> all = texts();
    return record.value < all.size() ? all[record.value] : "";
}

Host::~Host()
{
    closeAll();
}

void Host::open()
{
    m_module = openChild(nullptr, 0);
    ASSERT_NE(m_module, nullptr);
    const std::vector<std::uint32_t> sources = children(m_module);
    ASSERT_FALSE(sources.empty());
    m_source = openChild(m_module, sources.front());
    ASSERT_NE(m_source, nullptr);
}

MaidObject* Host::openChild(MaidObject* parent, std::uint32_t id)
{
    Node node;
    node.record = std::make_unique<MaidObject>();
    node.slot = std::make_unique<Slot>(Slot{this, node.record.get()});
    node.parent = parent;
    MaidObject* record = node.record.get();
    record->clientRef = node.slot.get();
    const MaidResult result = driver().entryPoint(
        parent, kMaidCommandOpen, id, kMaidDataTypeObjectPtr, dataOf(record), nullptr, nullptr);
    if (result != kMaidOk) {
        return nullptr;
    }
    void* slot = node.slot.get();
    m_nodes.push_back(std::move(node));
    if (record->type == kMaidLevelModule) {
        m_module = record;
        setProcedure(record, kMaidCapUserInterfaceProc, plain(&onRequest), slot);
    }
    setProcedure(record, kMaidCapProgressProc, plain(&onProgress), slot);
    setProcedure(record, kMaidCapEventProc, plain(&onEvent), slot);
    return record;
}

void Host::close(MaidObject* object)
{
    std::vector<MaidObject*> objects{object};
    for (std::size_t i = 0; i < objects.size(); ++i) {
        for (const Node& node : m_nodes) {
            if (node.parent == objects[i]) {
                objects.push_back(node.record.get());
            }
        }
    }
    for (auto one = objects.rbegin(); one != objects.rend(); ++one) {
        closeOne(*one);
    }
}

void Host::closeOne(MaidObject* object)
{
    clearProcedure(object, kMaidCapProgressProc);
    clearProcedure(object, kMaidCapEventProc);
    if (object->type == kMaidLevelModule) {
        clearProcedure(object, kMaidCapUserInterfaceProc);
    }
    driver().entryPoint(object, kMaidCommandClose, 0, 0, 0, nullptr, nullptr);
    m_source = m_source == object ? nullptr : m_source;
    m_module = m_module == object ? nullptr : m_module;
    m_nodes.erase(std::find_if(m_nodes.begin(), m_nodes.end(),
                               [&](const Node& node) { return node.record.get() == object; }));
}

void Host::closeAll()
{
    if (m_module != nullptr) {
        close(m_module);
    }
}

std::shared_ptr<Outcome> Host::begin(MaidObject* object, std::uint32_t command,
                                     std::uint32_t parameter, std::uint32_t dataType,
                                     MaidData data) const
{
    auto outcome = std::make_shared<Outcome>();
    const MaidResult result = driver().entryPoint(object, command, parameter, dataType, data,
                                                  &onCompletion, newTicket(outcome));
    const std::lock_guard<std::mutex> lock(g_mutex);
    outcome->result = result;
    return outcome;
}

Outcome Host::issue(MaidObject* object, std::uint32_t command, std::uint32_t parameter,
                    std::uint32_t dataType, MaidData data, int calls) const
{
    const auto outcome = begin(object, command, parameter, dataType, data);
    for (int i = 0; i < calls && lookAt(outcome).completions == 0; ++i) {
        if (async(object) < 0) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return lookAt(outcome);
}

MaidResult Host::async(MaidObject* object)
{
    return driver().entryPoint(object, kMaidCommandAsync, 0, 0, 0, nullptr, nullptr);
}

std::vector<MaidCapInfo> Host::capabilities(MaidObject* object) const
{
    std::uint32_t count = 0;
    EXPECT_TRUE(issue(object, kMaidCommandGetCapCount, 0, kMaidDataTypeUnsignedPtr, dataOf(&count))
                    .isGood());
    std::vector<MaidCapInfo> all(count);
    EXPECT_TRUE(
        issue(object, kMaidCommandGetCapInfo, count, kMaidDataTypeCapInfoPtr, dataOf(all.data()))
            .isGood());
    return all;
}

MaidCapInfo Host::capability(MaidObject* object, std::uint32_t id) const
{
    for (const MaidCapInfo& info : capabilities(object)) {
        if (info.id == id) {
            return info;
        }
    }
    return {};
}

List Host::list(MaidObject* object, std::uint32_t id) const
{
    List list;
    const Outcome got =
        issue(object, kMaidCommandCapGet, id, kMaidDataTypeEnumPtr, dataOf(&list.record));
    EXPECT_EQ(got.result, kMaidOk);
    if (got.result != kMaidOk || list.record.elementSize <= 0) {
        return list;
    }
    list.array.resize(std::size_t{list.record.elements} *
                      static_cast<std::size_t>(list.record.elementSize));
    list.record.array = list.array.data();
    EXPECT_EQ(issue(object, kMaidCommandCapGetArray, id, kMaidDataTypeEnumPtr, dataOf(&list.record))
                  .result,
              kMaidOk);
    return list;
}

std::uint32_t Host::number(MaidObject* object, std::uint32_t id) const
{
    std::uint32_t value = 0xFFFFFFFF;
    EXPECT_TRUE(
        issue(object, kMaidCommandCapGet, id, kMaidDataTypeUnsignedPtr, dataOf(&value)).isGood());
    return value;
}

Outcome Host::setNumber(MaidObject* object, std::uint32_t id, std::uint32_t value) const
{
    return issue(object, kMaidCommandCapSet, id, kMaidDataTypeUnsigned, value);
}

Outcome Host::setPosition(MaidObject* object, std::uint32_t id, std::uint32_t position) const
{
    MaidEnum record{};
    issue(object, kMaidCommandCapGet, id, kMaidDataTypeEnumPtr, dataOf(&record));
    record.value = position;
    return issue(object, kMaidCommandCapSet, id, kMaidDataTypeEnumPtr, dataOf(&record));
}

Outcome Host::setProcedure(MaidObject* object, std::uint32_t id, void (*procedure)(),
                           void* reference) const
{
    MaidCallback callback{procedure, reference};
    return issue(object, kMaidCommandCapSet, id, kMaidDataTypeCallbackPtr, dataOf(&callback));
}

Outcome Host::clearProcedure(MaidObject* object, std::uint32_t id) const
{
    return issue(object, kMaidCommandCapSet, id, kMaidDataTypeNull);
}

std::vector<std::uint32_t> Host::children(MaidObject* object) const
{
    return list(object, kMaidCapChildren).numbers();
}

Outcome Host::shoot() const
{
    return issue(m_source, kMaidCommandCapStart, kMaidCapCapture);
}

Outcome Host::acquire(MaidObject* data)
{
    received = Received{};
    setProcedure(data, kMaidCapDataProc, plain(&onData), this);
    const Outcome outcome = issue(data, kMaidCommandCapStart, kMaidCapAcquire);
    clearProcedure(data, kMaidCapDataProc);
    return outcome;
}

Outcome Host::fetch(std::uint32_t item, std::uint32_t dataId)
{
    Outcome outcome;
    MaidObject* opened = openChild(m_source, item);
    EXPECT_NE(opened, nullptr);
    MaidObject* data = opened == nullptr ? nullptr : openChild(opened, dataId);
    EXPECT_NE(data, nullptr);
    if (data != nullptr) {
        outcome = acquire(data);
    }
    if (opened != nullptr) {
        close(opened);
    }
    return outcome;
}

std::vector<std::uint64_t> Host::parameters(std::uint32_t code) const
{
    std::vector<std::uint64_t> found;
    for (const Event& event : events) {
        if (event.code == code) {
            found.push_back(event.parameter);
        }
    }
    return found;
}

void MAIDAPI Host::onCompletion(MaidObject* /*object*/, std::uint32_t /*command*/,
                                std::uint32_t /*parameter*/, std::uint32_t /*dataType*/,
                                MaidData /*data*/, MaidReference reference, MaidResult result)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    Outcome& outcome = *static_cast<Ticket*>(reference)->outcome;
    outcome.completion = result;
    outcome.thread = std::this_thread::get_id();
    ++outcome.completions;
}

void MAIDAPI Host::onEvent(MaidReference reference, std::uint32_t event, MaidData parameter)
{
    const auto* slot = static_cast<const Slot*>(reference);
    if (slot == nullptr) {
        return;
    }
    Host& host = *slot->host;
    host.events.push_back({slot->object, event, parameter});
    if (host.inEventProcedure) {
        host.inEventProcedure(host.events.back());
    }
}

void MAIDAPI Host::onProgress(std::uint32_t command, std::uint32_t parameter,
                              MaidReference reference, std::uint32_t done, std::uint32_t total)
{
    static_cast<const Slot*>(reference)->host->progress.push_back(
        {command, parameter, done, total});
}

MaidResult MAIDAPI Host::onData(MaidReference reference, const void* info, const void* data)
{
    return static_cast<Host*>(reference)->take(info, data);
}

std::uint32_t MAIDAPI Host::onRequest(MaidReference /*reference*/, void* /*request*/)
{
    return 0;
}

MaidResult Host::take(const void* info, const void* data)
{
    MaidDataInfo start{};
    std::memcpy(&start, info, sizeof start);
    received.kind = start.kind;
    std::size_t size = 0;
    if ((start.kind & kMaidDataFile) != 0) {
        MaidFileInfo file{};
        std::memcpy(&file, info, sizeof file);
        received.fileType = file.fileType;
        received.total = file.totalLength;
        received.removeFlag = file.removeObject;
        received.lengths.push_back(file.length);
        size = file.length;
    } else {
        MaidImageInfo image{};
        std::memcpy(&image, info, sizeof image);
        received.total = image.totalRows;
        received.rowBytes = image.rowBytes;
        received.removeFlag = image.removeObject;
        received.lengths.push_back(image.rows);
        size = std::size_t{image.rows} * image.rowBytes;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    if (bytes != nullptr) {
        received.bytes.insert(received.bytes.end(), bytes, bytes + size);
    }
    return inDataProcedure ? inDataProcedure() : kMaidOk;
}

void NikonTest::SetUp()
{
    ASSERT_TRUE(driver().isLoaded());
    driver().reset();
}

void NikonTest::TearDown()
{
    EXPECT_EQ(driver().openCount(0), 0);
    EXPECT_EQ(misuses(), "");
    if (HasFailure()) {
        std::fprintf(stderr, "%s", callLog().c_str());
    }
    driver().reset();
}

void NikonOpenTest::SetUp()
{
    NikonTest::SetUp();
    m_host.open();
}

void NikonOpenTest::TearDown()
{
    m_host.closeAll();
    NikonTest::TearDown();
}

std::uint32_t NikonOpenTest::picture()
{
    const int before = driver().pictureCount();
    EXPECT_TRUE(m_host.shoot().completions == 1);
    EXPECT_TRUE(driver().waitForPictures(before + 1, kDeadlineMs));
    const std::vector<std::uint32_t> items = m_host.children(m_host.source());
    return items.empty() ? 0 : items.back();
}

Bytes pictureBytes(int picture)
{
    Bytes bytes(static_cast<std::size_t>(driver().pictureValue(picture, "size")));
    EXPECT_EQ(driver().pictureBytes(picture, bytes.data(), static_cast<int64_t>(bytes.size())),
              static_cast<int64_t>(bytes.size()));
    return bytes;
}

Bytes pattern(std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
    }
    return bytes;
}
