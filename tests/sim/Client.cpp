#include "Client.h"

#include <cstdlib>

namespace NSVista::NSCorvane::sim {

namespace {

std::string driverPath(const std::string& entity) {
    uint32_t index = 0;
    while (vengine_ports[index].name != entity)
        ++index;
    return "/dev/video" + std::to_string(index);
}

}  // namespace

bool onDriver() {
    return getenv("CORVANE_TEST_MODEL");
}

Memory::Memory(size_t bytes) : size(bytes) {
    static auto source = onDriver() ? client::makeVideoNodeSource(driverPath("vengine-stats"))
                                    : client::makeMemoryFileSource();
    EXPECT_EQ(source->allocate(bytes, buffer), 0);
    fd = buffer.fd();
    data = buffer.map(client::CpuAccess::ReadWrite).data();
}

Client::Client() {
    if (!onDriver())
        mKernel.emplace(mEngine);
    mMedia = System::Open("/dev/media0", O_RDWR, 0);
}

Client::~Client() {
    for (auto& [name, node] : mNodes)
        System::Close(node.fd, 0);
    for (int request : mRequests)
        System::Close(request, 0);
    System::Close(mMedia, 0);
    DeviceCounts counts = device().counts();
    EXPECT_EQ(counts.openFiles, 0u);
    EXPECT_EQ(counts.requests, 0u);
    EXPECT_EQ(counts.mappedPlanes, 0u);
    EXPECT_EQ(counts.inFlight, 0u);
}

std::string Client::nodePath(const std::string& entity) {
    return onDriver() ? driverPath(entity) : device().nodePath(entity);
}

int Client::setLink(const std::string& name, uint32_t flags) {
    uint32_t index = 0;
    while (vengine_ports[index].name != name)
        ++index;
    media_link_desc link = {};
    bool output = V4L2_TYPE_IS_OUTPUT(vengine_ports[index].buf_type);
    media_pad_desc& core = output ? link.sink : link.source;
    core.entity = entityId(VENGINE_CORE_ENTITY);
    core.index = static_cast<uint16_t>(index);
    (output ? link.source : link.sink).entity = entityId(name);
    link.flags = flags;
    return call(mMedia, MEDIA_IOC_SETUP_LINK, &link);
}

uint32_t Client::entityId(const std::string& name) {
    media_entity_desc entity = {};
    do {
        entity.id |= MEDIA_ENT_ID_FLAG_NEXT;
    } while (call(mMedia, MEDIA_IOC_ENUM_ENTITIES, &entity) == 0 && name != entity.name);
    return entity.id;
}

Node& Client::node(const std::string& name) {
    auto [at, fresh] = mNodes.try_emplace(name);
    Node& node = at->second;
    if (!fresh)
        return node;
    node.port = vengine_ports;
    while (node.port->name != name)
        ++node.port;
    node.fd = System::Open(nodePath(name).c_str(), O_RDWR | O_NONBLOCK, 0);
    if (!node.port->immutable) {
        EXPECT_EQ(setLink(name, MEDIA_LNK_FL_ENABLED), 0) << name;
    }
    v4l2_format format = {};
    format.type = node.port->buf_type;
    format.fmt.pix.width = kWidth;
    format.fmt.pix.height = kHeight;
    format.fmt.pix.pixelformat = node.port->format;
    EXPECT_EQ(call(node.fd, VIDIOC_S_FMT, &format), 0) << name;
    node.layout = vengine_layout_of(node.port->format, kWidth, kHeight);
    if (node.layout.num_planes == 0) {
        node.layout.num_planes = 1;
        node.layout.sizeimage[0] = VENGINE_META_SIZE;
    }
    return node;
}

}  // namespace NSVista::NSCorvane::sim
