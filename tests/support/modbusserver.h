// A Modbus/TCP unit run by a test on loopback (libmodbus), with a coil map the test reads.
#pragma once

#include <arpa/inet.h>
#include <modbus.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace tw::test {

// A Modbus/TCP unit with a coil map, served by one thread. It can hang up on its client, or
// go away altogether, after a given number of requests.
class LoopbackModbusServer {
public:
    enum class After { KeepServing, DropConnection, GoAway };

    explicit LoopbackModbusServer(int coils = 16) {
        m_pCtx = modbus_new_tcp("127.0.0.1", 0);
        if (!m_pCtx) {
            m_strError = std::string("modbus_new_tcp: ") + modbus_strerror(errno);
            return;
        }
        m_pMap = modbus_mapping_new(coils, 0, 0, 0);
        if (!m_pMap) {
            m_strError = std::string("modbus_mapping_new: ") + modbus_strerror(errno);
            return;
        }
        m_ListenFd = modbus_tcp_listen(m_pCtx, 1);
        if (m_ListenFd < 0) {
            m_strError = std::string("modbus_tcp_listen: ") + modbus_strerror(errno);
            return;
        }
        sockaddr_in addr{};
        socklen_t len = sizeof(addr);
        if (getsockname(m_ListenFd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            m_strError = std::string("getsockname: ") + strerror(errno);
            return;
        }
        m_Port = ntohs(addr.sin_port);
    }

    ~LoopbackModbusServer() {
        Stop();
        if (m_pMap) modbus_mapping_free(m_pMap);
        if (m_pCtx) modbus_free(m_pCtx);
    }

    const std::string& Error() const { return m_strError; }
    int Port() const { return m_Port; }

    // Serves; after `count` handled requests it does `after`.
    void Start(After after = After::KeepServing, int count = 0) {
        m_After = after;
        m_AfterCount = count;
        m_Thread = std::thread([this] { Serve(); });
    }

    // Returns once the server has gone away (mode GoAway) or was stopped.
    void Join() {
        if (m_Thread.joinable()) m_Thread.join();
    }

    // Wakes the serving thread out of accept or receive and waits for it.
    void Stop() {
        {
            std::lock_guard<std::mutex> lock(m_FdMutex);
            if (m_ListenFd >= 0) shutdown(m_ListenFd, SHUT_RDWR);
            if (m_ClientFd >= 0) shutdown(m_ClientFd, SHUT_RDWR);
        }
        Join();
        std::lock_guard<std::mutex> lock(m_FdMutex);
        if (m_ListenFd >= 0) close(m_ListenFd);
        m_ListenFd = -1;
    }

    // Comes back on the port it served before, with the coils as they were: a module that
    // was unplugged or rebooted without losing its outputs. After Stop, or a GoAway.
    bool Restart(After after = After::KeepServing, int count = 0) {
        Stop();
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            m_strError = std::string("socket: ") + strerror(errno);
            return false;
        }
        const int yes = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(m_Port));
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 1) != 0) {
            m_strError = "cannot listen again on port " + std::to_string(m_Port) + ": " + strerror(errno);
            close(fd);
            return false;
        }
        {
            std::lock_guard<std::mutex> lock(m_FdMutex);
            m_ListenFd = fd;
        }
        Start(after, count);
        return true;
    }

    bool Coil(int idx) {
        std::lock_guard<std::mutex> lock(m_MapMutex);
        return m_pMap->tab_bits[idx] != 0;
    }
    int Requests() {
        std::lock_guard<std::mutex> lock(m_MapMutex);
        return m_Requests;
    }
    int Connections() {
        std::lock_guard<std::mutex> lock(m_MapMutex);
        return m_Connections;
    }
    int LastUnitId() {
        std::lock_guard<std::mutex> lock(m_MapMutex);
        return m_LastUnitId;
    }

private:
    void Serve() {
        for (;;) {
            int listenFd = -1;
            {
                std::lock_guard<std::mutex> lock(m_FdMutex);
                listenFd = m_ListenFd;
            }
            const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;  // shut down by Stop
            {
                std::lock_guard<std::mutex> lock(m_FdMutex);
                m_ClientFd = fd;
            }
            {
                std::lock_guard<std::mutex> lock(m_MapMutex);
                ++m_Connections;
            }
            modbus_set_socket(m_pCtx, fd);
            const After done = ServeClient();
            {
                std::lock_guard<std::mutex> lock(m_FdMutex);
                close(m_ClientFd);
                m_ClientFd = -1;
                if (done == After::GoAway) {
                    close(m_ListenFd);
                    m_ListenFd = -1;
                    return;
                }
            }
        }
    }

    // Answers the client until it hangs up (KeepServing) or the request count is reached.
    After ServeClient() {
        uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
        for (;;) {
            const int length = modbus_receive(m_pCtx, query);
            if (length < 0) return After::KeepServing;
            if (length == 0) continue;
            int handled = 0;
            {
                // The test reads the map from its own thread.
                std::lock_guard<std::mutex> lock(m_MapMutex);
                m_LastUnitId = query[6];
                modbus_reply(m_pCtx, query, length, m_pMap);
                handled = ++m_Requests;
            }
            if (m_After != After::KeepServing && handled == m_AfterCount) return m_After;
        }
    }

    modbus_t* m_pCtx = nullptr;
    modbus_mapping_t* m_pMap = nullptr;
    std::string m_strError;
    int m_Port = 0;
    std::mutex m_FdMutex;
    int m_ListenFd = -1;
    int m_ClientFd = -1;
    std::mutex m_MapMutex;
    int m_Requests = 0;
    int m_Connections = 0;
    int m_LastUnitId = -1;
    After m_After = After::KeepServing;
    int m_AfterCount = 0;
    std::thread m_Thread;
};

}  // namespace tw::test
