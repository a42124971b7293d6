// SPDX-License-Identifier: Apache-2.0
#include "Bench.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "vengine-fault.h"

namespace NSVista::NSCorvane::test {

namespace {

Bench* current = nullptr;

std::string readTestFile(const std::string& name) {
    std::ifstream file("/sys/kernel/debug/vengine/" + name);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    return bool(file << text << std::flush);
}

std::string describe(const sim::IoctlRecord& record) {
    std::ostringstream text;
    for (const vengine_fault_word& word : vengine_fault_words)
        if (word.code == record.code)
            text << word.word << ' ';
    for (uint8_t value : record.bytes)
        text << std::hex << value / 16 << value % 16;
    return text.str() + '\n';
}

}  // namespace

Bench::Bench() {
    test::current = this;
    if (!getenv("CORVANE_TEST_MODEL"))
        mEngine = std::make_unique<sim::VirtualEngine>();
    // Of the mask's node: it can be had for as long as no test has buffers there.
    mSource = inProcess() ? client::makeMemoryFileSource()
                          : client::makeVideoNodeSource(path(vengine_ports[kMask].name));
    takeRecord();
}

Bench::~Bench() {
    test::current = nullptr;
}

Bench& Bench::current() {
    return *test::current;
}

std::string Bench::path(const std::string& entity) const {
    if (inProcess())
        return entity.empty() ? device().path() : device().nodePath(entity);
    for (unsigned n = 0; n < VENGINE_PORTS; ++n)
        if (entity == vengine_ports[n].name)
            return "/dev/video" + std::to_string(n);
    return entity.empty() ? "/dev/media0" : "/dev/v4l-subdev0";
}

bool Bench::fault(const std::string& line) const {
    return inProcess() ? mEngine->faults().order(line) == 0
                       : writeFile("/sys/kernel/debug/vengine/fault", line + '\n');
}

std::string Bench::faults() const {
    return inProcess() ? mEngine->faults().ordered() : readTestFile("fault");
}

void Bench::setOrder(int order, unsigned delayUs) const {
    if (inProcess()) {
        device().setTiming({.latency = std::chrono::microseconds(delayUs),
                            .order = order > 1   ? sim::Order::REVERSED
                                     : order < 0 ? sim::Order::RANDOM
                                                 : sim::Order::IN_ORDER,
                            .group = static_cast<unsigned>(abs(order))});
        return;
    }
    const std::string parameters = "/sys/module/vengine/parameters/";
    EXPECT_TRUE(writeFile(parameters + "order", std::to_string(order)) &&
                writeFile(parameters + "delay_us", std::to_string(delayUs)));
}

std::string Bench::held() const {
    std::ostringstream text;
    std::map<std::string, size_t> counts;
    if (inProcess()) {
        const sim::DeviceCounts all = device().counts();
        const sim::SubDeviceCounts sub = device().subDeviceCounts();
        counts = {{"requests", all.requests},
                  {"buffers", all.inFlight},
                  {"kva", sub.kva},
                  {"iova", sub.iova},
                  {"fences", sub.fences},
                  {"memory", sub.memory},
                  {"events", sub.subscriptions},
                  {"dmabufs", all.mappedPlanes + sub.kva + sub.iova}};
    } else {
        std::istringstream lines(readTestFile("counts"));
        for (std::string name; lines >> name;)
            lines >> counts[name];
        counts.erase("files");
    }
    for (const auto& [name, number] : counts)
        if (number != 0)
            text << name << ' ' << number << '\n';
    return text.str();
}

std::string Bench::takeRecord() const {
    if (inProcess()) {
        std::string all;
        for (const sim::IoctlRecord& record : device().takeIoctlRecords())
            all += describe(record);
        return all;
    }
    std::string all = readTestFile("record");
    EXPECT_TRUE(writeFile("/sys/kernel/debug/vengine/record", "clear"));
    return all;
}

int call(int fd, unsigned long code, void* arg) {
    return Bench::current().kernel().ioctl(fd, code, arg);
}

short pollFor(int fd, short events, int milliseconds) {
    pollfd p = {fd, events, 0};
    return poll(&p, 1, milliseconds) > 0 ? p.revents : short{0};
}

Fd newRequest(int media) {
    int fd = -1;
    EXPECT_EQ(call(media, MEDIA_IOC_REQUEST_ALLOC, &fd), 0);
    return Fd(fd);
}

int setControl(int sub, int32_t value) {
    kvxdip_control control = {VENGINE_CTRL_BRIGHTNESS, value};
    return call(sub, KVXDIP_IOC_SET_CONTROL, &control);
}

int subscribe(int sub, unsigned long code, uint32_t type) {
    v4l2_event_subscription subscription = {};
    subscription.type = type;
    return call(sub, code, &subscription);
}

uint32_t entityId(int media, const std::string& name) {
    media_entity_desc entity = {};
    do {
        entity.id |= MEDIA_ENT_ID_FLAG_NEXT;
    } while (call(media, MEDIA_IOC_ENUM_ENTITIES, &entity) == 0 && name != entity.name);
    return entity.id;
}

int setLink(int media, unsigned port, uint32_t flags) {
    media_link_desc link = {};
    link.source.entity = entityId(media, VENGINE_CORE_ENTITY);
    link.source.index = static_cast<uint16_t>(port);
    link.sink.entity = entityId(media, vengine_ports[port].name);
    if (V4L2_TYPE_IS_OUTPUT(vengine_ports[port].buf_type))
        std::swap(link.source, link.sink);
    link.flags = flags;
    return call(media, MEDIA_IOC_SETUP_LINK, &link);
}

Port::Port(const vengine_port& port, std::string nodeName, unsigned buffers)
    : desc(port), name(std::move(nodeName)), count(buffers) {
    const uint32_t width = desc.role == VENGINE_ROLE_INPUT ? 96 : 72;
    const uint32_t height = desc.role == VENGINE_ROLE_MASK ? 16 : 24;
    layout = meta() ? vengine_layout{desc.format, 0, 0, 1, {}, {VENGINE_META_SIZE}}
                    : vengine_layout_of(desc.format, width, height);
    memory.resize(buffers * layout.num_planes);
    for (size_t i = 0; i < memory.size(); ++i)
        Bench::current().source().allocate(bytes(i % layout.num_planes), memory[i]);
}

int Port::prepare() {
    node = Fd(name);
    v4l2_format format = {};
    format.type = type();
    if (!meta()) {  // the first fields of pix and pix_mp are the same
        format.fmt.pix.pixelformat = layout.fourcc;
        format.fmt.pix.width = layout.width;
        format.fmt.pix.height = layout.height;
    }
    const int result = call(node, VIDIOC_S_FMT, &format);
    return result < 0 ? result : requestBuffers(count);
}

int Port::requestBuffers(unsigned wanted, uint32_t memoryType) {
    v4l2_requestbuffers request = {};
    request.count = wanted;
    request.type = type();
    request.memory = memoryType;
    const int result = call(node, VIDIOC_REQBUFS, &request);
    return result < 0 ? result : static_cast<int>(request.count);
}

int Port::stream(bool on) {
    uint32_t argument = type();
    return call(node, on ? VIDIOC_STREAMON : VIDIOC_STREAMOFF, &argument);
}

int Port::queue(unsigned buffer, int request, const std::function<void(Port&)>& change) {
    memset(planes, 0, sizeof(planes));
    record = {};
    record.index = buffer;
    record.type = type();
    record.memory = V4L2_MEMORY_DMABUF;
    record.flags = request >= 0 ? V4L2_BUF_FLAG_REQUEST_FD : 0;
    record.request_fd = request;
    for (unsigned n = 0; n < layout.num_planes; ++n) {
        // An index beyond the queue's is for the engine to refuse: any memory does.
        planes[n].m.fd = memory[(buffer * layout.num_planes + n) % memory.size()].fd();
        planes[n].length = output() ? layout.sizeimage[n] : 0;
        planes[n].reserved[2] = offset(n);
    }
    record.length = multiplanar() ? layout.num_planes : layout.sizeimage[0];
    record.m.fd = planes[0].m.fd;
    if (multiplanar())
        record.m.planes = planes;
    else
        record.reserved2 = planes[0].reserved[2];
    if (change)
        change(*this);
    return call(node, VIDIOC_QBUF, &record);
}

int Port::dequeue(uint32_t planeCount) {
    memset(planes, 0, sizeof(planes));
    record = {};
    record.type = type();
    record.memory = V4L2_MEMORY_DMABUF;
    record.length = planeCount;
    if (multiplanar())
        record.m.planes = planes;
    const int result = call(node, VIDIOC_DQBUF, &record);
    if (result < 0)
        return result;
    return record.flags & V4L2_BUF_FLAG_ERROR ? -EIO : static_cast<int>(record.index);
}

uint8_t* Port::data(unsigned buffer, unsigned plane) {
    return memory[buffer * layout.num_planes + plane].map(client::CpuAccess::ReadWrite).data();
}

vengine_picture Port::picture(unsigned buffer) {
    uint8_t* first[3] = {};
    for (unsigned n = 0; n < layout.num_planes; ++n)
        first[n] = data(buffer, n) + offset(n);
    return vengine_map(&layout, first);
}

bool Port::shows(unsigned buffer, const vengine_source& source, uint32_t run, uint8_t held) {
    std::vector<uint8_t> wanted[3];
    uint8_t* first[3] = {};
    for (unsigned n = 0; n < layout.num_planes; ++n) {
        wanted[n].assign(bytes(n), held);
        first[n] = wanted[n].data() + offset(n);
    }
    vengine_picture drawn = vengine_map(&layout, first);
    if (desc.role == VENGINE_ROLE_STATS) {
        const vengine_stats stats = {
            VENGINE_STATS_MAGIC, source.frame, 0x1ff, run, vengine_checksum(source.input), {}};
        memcpy(first[0], &stats, sizeof(stats));
    } else {
        vengine_capture(&source, desc.role, &drawn);
    }
    bool same = true;
    for (unsigned n = 0; n < layout.num_planes; ++n)
        same &= memcmp(data(buffer, n), wanted[n].data(), wanted[n].size()) == 0;
    return same;
}

EngineTest::~EngineTest() {
    EXPECT_EQ(bench.faults(), "");
    bench.fault("clear");
    bench.setOrder(1);
    ports.clear();
    for (unsigned n = 0; n < VENGINE_PORTS; ++n)
        EXPECT_EQ(setLink(media, n, 0), vengine_ports[n].immutable ? -EINVAL : 0);
    media = Fd();
    EXPECT_EQ(bench.held(), "");
    if (bench.inProcess()) {
        EXPECT_EQ(bench.device().counts().openFiles, 0u);
        EXPECT_EQ(bench.engine().openFiles(), 0u);
    }
}

Port& EngineTest::add(unsigned number, unsigned buffers) {
    const vengine_port& desc = vengine_ports[number];
    if (!desc.immutable) {
        EXPECT_EQ(setLink(media, number, MEDIA_LNK_FL_ENABLED), 0);
    }
    Port& port = ports.emplace_back(desc, desc.name, buffers);
    EXPECT_EQ(port.prepare(), static_cast<int>(buffers));
    return port;
}

Port& EngineTest::start(unsigned number, unsigned buffers) {
    Port& port = add(number, buffers);
    EXPECT_EQ(port.stream(true), 0);
    return port;
}

int EngineTest::submit(int request, const std::vector<Port*>& with, unsigned buffer) {
    for (Port* port : with)
        if (const int result = port->queue(buffer, request); result < 0)
            return result;
    return call(request, MEDIA_REQUEST_IOC_QUEUE);
}

Fd EngineTest::submitNew(const std::vector<Port*>& with, unsigned buffer) {
    Fd request = newRequest(media);
    EXPECT_EQ(submit(request, with, buffer), 0);
    return request;
}

std::vector<Fd> EngineTest::submitAll(const std::vector<Port*>& with, unsigned buffers) {
    std::vector<Fd> requests;
    for (unsigned n = 0; n < buffers; ++n)
        requests.push_back(submitNew(with, n));
    return requests;
}

int EngineTest::cycle(Port& port, unsigned buffer) {
    const Fd request = newRequest(media);
    if (const int result = submit(request, {&port}, buffer); result < 0)
        return result;
    return done(request) ? port.dequeue() : -ETIMEDOUT;
}

}  // namespace NSVista::NSCorvane::test
