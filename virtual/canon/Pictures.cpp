#include "canon/Pictures.h"

#include <algorithm>
#include <cmath>

#include "canon/Codes.h"
#include "canon/World.h"
#include "common/Text.h"

namespace virtualcanon {

namespace {

using virtualcamera::Origin;

std::string numbered(int number)
{
    const std::string digits = std::to_string(number % 10000);
    return "IMG_" + std::string(4 - std::min<std::size_t>(4, digits.size()), '0') + digits;
}

std::shared_ptr<PictureFile> newFile(const Exposure& exposure, int shot, const std::string& name)
{
    const Body& body = *exposure.body;
    auto file = std::make_shared<PictureFile>();
    file->shot = shot;
    file->camera = body.number();
    file->origin = exposure.isFromBody ? Origin::kBody : Origin::kHost;
    file->name.assign(body.pictureName.begin(), body.pictureName.end());
    if (file->name.empty()) {
        file->name = name.substr(0, kEdsMaxName);
    }
    return file;
}

// Whether the host asked for pictures and has room for this one.
bool isForHost(const Exposure& exposure, std::int64_t size)
{
    const Connection* connection = exposure.connection.get();
    if (connection == nullptr || !connection->isOpen || connection->room < size) {
        return false;
    }
    return (exposure.body->value(property::kSaveTo) & 2U) != 0;
}

void announce(World& world, const Exposure& exposure, const std::shared_ptr<PictureFile>& file)
{
    Event event;
    event.eventClass = EventClass::kObject;
    event.connection = exposure.connection;
    event.file = file;
    event.bytes = file->bytes;
    const bool staysOnCamera = (exposure.body->value(property::kSaveTo) & 1U) != 0;
    if (!file->isForHost || staysOnCamera) {
        event.code = event::kItemCreated;
        raise(world, event);
    }
    if (file->isForHost) {
        event.code = event::kTransferRequested;
        raise(world, event);
    }
}

// The bytes of the newest files are kept for comparing.
void forgetOldBytes(const std::vector<std::shared_ptr<PictureFile>>& files, const Options& options)
{
    virtualcamera::Keeping keeping(options);
    for (auto file = files.rbegin(); file != files.rend() && (*file)->bytes != nullptr; ++file) {
        if (!keeping.keepsNext((*file)->size)) {
            (*file)->bytes = nullptr;
        }
    }
}

void store(World& world, const Exposure& exposure, const std::shared_ptr<PictureFile>& file)
{
    file->size = static_cast<std::int64_t>(file->bytes->size());
    file->isForHost = isForHost(exposure, file->size);
    if (file->isForHost) {
        exposure.connection->room -= file->size;
    }
    world.files.push_back(file);
    announce(world, exposure, file);
    forgetOldBytes(world.files, world.options);
    world.changed.notify_all();
}

Exposure newExposure(const World& world, const std::shared_ptr<Body>& body, bool isFromBody)
{
    Exposure exposure;
    exposure.body = body;
    exposure.connection = world.connectionOf(*body);
    exposure.isFromBody = isFromBody;
    exposure.quality = body->value(property::kQuality);
    exposure.facts = body->facts(world.options.pictureTime());
    exposure.facts.width = world.options.pictureWidth();
    exposure.facts.height = world.options.pictureHeight();
    exposure.begin(world.options, body->exposureSeconds(), body->isBulb());
    exposure.endsWithButton = body->isBulb() && !isFromBody && !exposure.isKeptOpen();
    if (exposure.endsWithButton) {
        exposure.keepOpen();
    }
    return exposure;
}

// Ends the body's exposure if it is kept open and `concerns` holds for it.
template <typename Condition>
bool endIf(World& world, const Body& body, Condition concerns)
{
    if (world.libraryThreads == nullptr) {
        return false;
    }
    bool wasEnded = false;
    for (Exposure& exposure : world.libraryThreads->exposures) {
        if (exposure.body.get() == &body && concerns(exposure) && exposure.end(world.options)) {
            exposure.body->isKeptOpen = false;
            wasEnded = true;
        }
    }
    world.work.notify_all();
    return wasEnded;
}

// What comes of one exposure.
class Development
{
public:
    // `libraryThreads` is the one whose thread this is, null for none.
    Development(World& world, Lock& lock, const Exposure& exposure,
                const LibraryThreads* libraryThreads)
        : m_world(world),
          m_lock(lock),
          m_exposure(exposure),
          m_libraryThreads(libraryThreads),
          m_epoch(world.epoch),
          m_shot(exposure.body->shots),
          m_parts(qualityParts(exposure.quality))
    {}

    void run()
    {
        if (m_world.options.folder.isUsed()) {
            deliverFromFolder();
            return;
        }
        const Options options = m_world.options;
        if (m_parts.hasRaw) {
            make(".CR2", m_exposure.facts, scene::makeRaw, options.rawSize);
        }
        if (m_parts.hasJpeg) {
            scene::PictureFacts facts = m_exposure.facts;
            facts.width = std::max(16, static_cast<int>(facts.width * m_parts.jpegScale));
            facts.height = std::max(16, static_cast<int>(facts.height * m_parts.jpegScale));
            facts.jpegQuality = m_parts.jpegQuality;
            make(".JPG", facts, scene::makeJpeg, options.jpegSize);
        }
    }

private:
    // What takes its time, with the lock given up.
    template <typename Work>
    auto unlocked(Work work)
    {
        m_lock.unlock();
        auto made = work();
        m_lock.lock();
        return made;
    }

    // Stores the file; not when everything has changed while the lock was given up.
    void add(const std::shared_ptr<PictureFile>& file, std::shared_ptr<const Bytes> bytes)
    {
        file->bytes = std::move(bytes);
        if (m_world.epoch == m_epoch &&
            (m_libraryThreads == nullptr || !m_libraryThreads->isStopping)) {
            store(m_world, m_exposure, file);
        }
    }

    template <typename Maker>
    void make(const char* extension, scene::PictureFacts facts, Maker maker, std::int64_t size)
    {
        const auto file = newFile(m_exposure, m_shot, numbered(m_exposure.body->files) + extension);
        facts.shot = file->shot;
        facts.quality = m_parts.text;
        facts.fileName = file->name.substr(0, 40);
        add(file, unlocked([&] { return std::make_shared<const Bytes>(maker(facts, size)); }));
    }

    void deliverFromFolder()
    {
        const virtualcamera::FolderShot shot{m_exposure.body->number(), m_parts.hasRaw,
                                             m_parts.hasJpeg};
        m_world.options.folder.deliver(
            shot, m_world.log,
            [&](const std::string& path) {
                return unlocked([&] { return virtualcamera::readFile(path); });
            },
            [&](const virtualcamera::FolderFile& given, const virtualcamera::FileBytes& bytes) {
                add(newFile(m_exposure, m_shot, given.name), bytes);
            });
    }

    World& m_world;
    Lock& m_lock;
    const Exposure& m_exposure;
    const LibraryThreads* m_libraryThreads;
    const unsigned m_epoch;
    const int m_shot;
    const QualityParts m_parts;
};

}  // namespace

std::uint32_t press(World& world, Lock& lock, const std::shared_ptr<Body>& body, bool isFromBody)
{
    if (body->exposures > 0 && (world.options.busy != 0 || body->isKeptOpen)) {
        return result::kDeviceBusy;
    }
    if (world.options.focusFails != 0) {
        return result::kFocusFailed;
    }

    const Exposure exposure = newExposure(world, body, isFromBody);
    ++body->exposures;
    if (world.libraryThreads != nullptr) {
        body->isKeptOpen = exposure.isKeptOpen();
        world.libraryThreads->exposures.push_back(exposure);
        world.work.notify_all();
        world.changed.notify_all();
    } else {
        developPicture(world, lock, exposure, nullptr);
        body->exposures = std::max(0, body->exposures - 1);
    }
    return result::kOk;
}

void releaseButton(World& world, const Body& body)
{
    endIf(world, body, [](const Exposure& exposure) { return exposure.endsWithButton; });
}

bool endExposure(World& world, const Body& body)
{
    return endIf(world, body, [](const Exposure&) { return true; });
}

void leaveExposure(World& world, const Body& body)
{
    endIf(world, body, [](const Exposure& exposure) { return !exposure.isFromBody; });
}

void developPicture(World& world, Lock& lock, const Exposure& exposure,
                    const LibraryThreads* libraryThreads)
{
    Body& body = *exposure.body;
    ++body.shots;
    ++body.files;
    Development(world, lock, exposure, libraryThreads).run();
}

}  // namespace virtualcanon
