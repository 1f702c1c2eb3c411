// libFuzzer target: arbitrary byte streams through the live-cam detector's receive loop and
// its stream parser, delivered over a real UNIX stream socket pair the way the mobile
// daemon's connection delivers them.
//
// The detector's own DoRecvSocketLoop runs on a thread of its own on one end of the pair; the
// fuzzer writes the input's chunks into the other end and finally closes it, which ends the
// loop with "end of data". Several connections in one input reach the same detector object,
// as successive cycles of detection do: whatever parse state a connection leaves behind is
// what the next one starts from.
//
// Input layout:
//   byte 0       low 4 bits: the number k of plan entries that follow (high bits unused)
//   bytes 1..k   plan entries, used in turn and then again from the first, each cutting the
//                next write from the stream bytes:
//                  bits 0-6  bytes in this write; 0 means everything that is left
//                  bit 7     end the connection after this write; what follows goes into a
//                            new connection to the same detector
//   the rest     the stream bytes
// With k = 0 the stream goes in a single write. When the loop ends a connection by itself (a
// full buffer), the chunks that follow go into a new connection. An ASCII digit as the first
// byte is a plan of that many entries, so that seed files stay readable text.
//
// Chunk boundaries are kept exactly: a chunk is written only once the loop has read the
// whole of the previous one, so every read() returns bytes of one chunk, at most as many as
// the buffer has room for, the rest coming with the next read as the kernel delivers it.
// The loop's trace message "read data len" is the signal that a read has returned: the log
// sink of this program counts those and drops every record, and it checks the parse state
// at that point: the state the previous ParseSocketStream() left, or on the first read of a
// connection what the loop's start made of it. The state after the last parse of a
// connection is checked once the loop has returned.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

#include "camera/livecamdetector.h"
#include "tw/camera.h"
#include "twhost/eventlog.h"
#include "twhost/logsink.h"

// The detector's receive state is private; the class names this struct as its friend.
struct LiveCamDetectorAccess {
    static int ParseOffset(const LiveCamDetector& d) { return d.m_ParseOffset; }
    static int BufferedLen(const LiveCamDetector& d) { return d.m_BufferedLen; }
    static Camera* CameraOf(const LiveCamDetector& d) { return d.m_pCamera; }
    static EventBuf* EventsOf(const LiveCamDetector& d) { return d.m_pEventBuf; }
    static bool Running(const LiveCamDetector& d) { return __atomic_load_n(&d.m_blRunning, __ATOMIC_RELAXED); }
    // The receive loop runs while this flag is set; Start() would also spawn the worker,
    // which is not wanted here.
    static void SetRunning(LiveCamDetector& d, bool running) {
        __atomic_store_n(&d.m_blRunning, running, __ATOMIC_RELAXED);
    }
};

namespace {

constexpr int kFillLimit = TW_LIVECAM_RECV_BUF_SIZE - 1;   // bytes a read may fill at most
constexpr int kCameraId = 7;
// Far longer than any read and parse takes, even instrumented: reaching it means the loop
// stopped reading while data was waiting.
constexpr std::chrono::seconds kReadWait(10);

[[noreturn]] void Fail(const char* what, const LiveCamDetector& d, int incoming) {
    fprintf(stderr, "livecam_stream_fuzz: %s (parse offset %d, buffered length %d, bytes just read %d)\n", what,
            LiveCamDetectorAccess::ParseOffset(d), LiveCamDetectorAccess::BufferedLen(d), incoming);
    fflush(stderr);
    __builtin_trap();
}

// What must hold between two parses: the offsets lie inside the buffer, with room for the
// parser's NUL at the buffered length; a read never fills past that room; and the members
// next to the buffer still hold what they held (a write before the buffer lands on them,
// which AddressSanitizer cannot see inside one object).
void CheckState(const LiveCamDetector& d, Camera* camera, EventBuf* events, int incoming) {
    const int offset = LiveCamDetectorAccess::ParseOffset(d);
    const int buffered = LiveCamDetectorAccess::BufferedLen(d);
    if (buffered < 0) Fail("buffered length is negative", d, incoming);
    if (buffered > kFillLimit) Fail("buffered length exceeds 2047", d, incoming);
    if (offset < 0) Fail("parse offset is negative", d, incoming);
    // The loop empties the buffer of a new connection but keeps the parse offset, so an
    // offset left by a bad header may lie past the buffered bytes until the next parse;
    // the parse must then start at the front (checked after the loop).
    (void)offset;
    if (incoming < 0 || incoming > kFillLimit - buffered) Fail("a read filled past the buffer's room", d, incoming);
    if (LiveCamDetectorAccess::CameraOf(d) != camera || LiveCamDetectorAccess::EventsOf(d) != events)
        Fail("members next to the receive buffer were overwritten", d, incoming);
    if (!LiveCamDetectorAccess::Running(d)) Fail("running flag was cleared", d, incoming);
}

// Drops every record; counts the bytes of each completed read of the attached detector and
// wakes the writer waiting for them.
class ReadTrackingSink : public tw::host::LogSink {
public:
    void Attach(const LiveCamDetector* det, Camera* camera, EventBuf* events) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_pDet = det;
        m_pCamera = camera;
        m_pEvents = events;
    }

    void BeginConnection() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Consumed = 0;
        m_blLoopDone = false;
    }

    void EndConnection() {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_blLoopDone = true;
        }
        m_Cond.notify_all();
    }

    // Waits until the loop has read `written` bytes of this connection or has ended.
    void WaitConsumed(size_t written) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        if (!m_Cond.wait_for(lock, kReadWait, [&] { return m_blLoopDone || m_Consumed >= written; })) {
            fprintf(stderr, "livecam_stream_fuzz: the receive loop read %zu of %zu bytes and stopped reading\n",
                    m_Consumed, written);
            fflush(stderr);
            __builtin_trap();
        }
    }

    void Write(const tw::host::LogRecord& record) override {
        if (record.function != "DoRecvSocketLoop") return;
        int fd = 0;
        int count = 0;
        if (sscanf(record.message.c_str(), "ReadFd[%d] read data len[%d].", &fd, &count) != 2) return;
        // Called on the loop's thread, after read() returned and before the parse: the
        // state is the one the previous parse left, plus the bytes of this read.
        const LiveCamDetector* det;
        Camera* camera;
        EventBuf* events;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            det = m_pDet;
            camera = m_pCamera;
            events = m_pEvents;
        }
        if (det == nullptr) return;
        if (count < 1) Fail("a read reported no bytes as data", *det, count);
        CheckState(*det, camera, events, count);
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Consumed += static_cast<size_t>(count);
        }
        m_Cond.notify_all();
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    const LiveCamDetector* m_pDet = nullptr;
    Camera* m_pCamera = nullptr;
    EventBuf* m_pEvents = nullptr;
    size_t m_Consumed = 0;
    bool m_blLoopDone = false;
};

std::shared_ptr<ReadTrackingSink> g_pSink;
// LIVECAM_FUZZ_TRACE=1 prints each write and connection and the events written, for
// studying a reproducer; fuzzing runs leave it unset.
bool g_blTrace = false;

// Writes all of [data, data + size); false once the loop has closed its end.
bool SendAll(int fd, const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

struct Plan {
    const uint8_t* entries;
    size_t count;
    size_t next = 0;
};

// Runs one connection: the loop on its own thread, the chunks of the plan written from here
// until a plan entry ends the connection, the stream is used up, or the loop ends by itself.
// Advances pos past every chunk written.
void RunConnection(LiveCamDetector& det, Camera* camera, EventBuf* events, Plan& plan, const uint8_t* stream,
                   size_t size, size_t& pos) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        perror("livecam_stream_fuzz: socketpair");
        abort();
    }
    const int writeFd = fds[0];
    const int readFd = fds[1];   // the loop closes it
    g_pSink->BeginConnection();
    std::thread loop([&det, readFd] {
        det.DoRecvSocketLoop(readFd);
        g_pSink->EndConnection();
    });

    size_t written = 0;
    while (pos < size) {
        size_t chunk = size - pos;
        bool endConnection = false;
        if (plan.count > 0) {
            const uint8_t entry = plan.entries[plan.next];
            plan.next = (plan.next + 1) % plan.count;
            if ((entry & 0x7f) != 0 && (entry & 0x7f) < chunk) chunk = entry & 0x7f;
            endConnection = (entry & 0x80) != 0;
        }
        if (g_blTrace) fprintf(stderr, "write %zu bytes at stream offset %zu\n", chunk, pos);
        const bool sent = SendAll(writeFd, stream + pos, chunk);
        pos += chunk;
        // The end of data after the last chunk is no data of its own: it cannot merge into
        // the chunk's reads, so there is nothing to wait for before closing.
        if (!sent || endConnection || pos >= size) break;
        written += chunk;
        g_pSink->WaitConsumed(written);
    }

    close(writeFd);
    loop.join();
    // The loop's last parse, if it ended after one, leaves its offset inside the buffered
    // bytes.
    CheckState(det, camera, events, 0);
    if (LiveCamDetectorAccess::ParseOffset(det) > LiveCamDetectorAccess::BufferedLen(det))
        Fail("parse offset is past the buffered length", det, 0);
    if (g_blTrace) {
        fprintf(stderr, "connection ended: parse offset %d, buffered length %d\n",
                LiveCamDetectorAccess::ParseOffset(det), LiveCamDetectorAccess::BufferedLen(det));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Category 70 at level 6 lets the loop's per-read trace reach the sink; every other
    // category stays silent and nothing is formatted for it.
    static tw::host::DbgLogConfig s_Config;
    s_Config.SetCategoryLevel(LOG_CATEG_LIVECAM, 6);
    s_Config.Install();
    const char* trace = getenv("LIVECAM_FUZZ_TRACE");
    g_blTrace = trace != nullptr && trace[0] != '\0' && trace[0] != '0';
    g_pSink = std::make_shared<ReadTrackingSink>();
    tw::host::SetLogSink(g_pSink);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Plan plan{nullptr, 0};
    size_t header = 0;
    if (size > 0) {
        plan.count = data[0] & 0x0f;
        if (plan.count > size - 1) plan.count = size - 1;
        plan.entries = data + 1;
        header = 1 + plan.count;
    }
    const uint8_t* stream = data + header;
    const size_t streamSize = size - header;

    Camera camera;
    camera.id = kCameraId;
    EventBuf events(kCameraId);
    std::unique_ptr<LiveCamDetector> det(new LiveCamDetector(&camera, &events));
    g_pSink->Attach(det.get(), &camera, &events);
    LiveCamDetectorAccess::SetRunning(*det, true);

    // At least one connection, so that an empty stream still goes through the end-of-data path.
    size_t pos = 0;
    do {
        RunConnection(*det, &camera, &events, plan, stream, streamSize, pos);
    } while (pos < streamSize);

    if (g_blTrace) {
        for (const tw::host::EventRecord& e : tw::host::GetEventHistory(events))
            fprintf(stderr, "event: motion %d level %d\n", e.motion ? 1 : 0, e.value);
    }
    LiveCamDetectorAccess::SetRunning(*det, false);
    g_pSink->Attach(nullptr, nullptr, nullptr);
    return 0;
}
