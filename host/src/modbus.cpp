// A real network I/O module over Modbus/TCP, through libmodbus.
#include <modbus.h>

#include <cerrno>

#include "twhost/iomodule.h"

namespace tw::host {

namespace {

// How long a request waits for the module's answer (and a connection for its accept).
constexpr uint32_t kResponseTimeoutSec = 1;

// A connection the module (or the network) has taken away: worth one fresh connection.
bool IsDroppedConnection(int err) {
    return err == ECONNRESET || err == EPIPE || err == ENOTCONN || err == ECONNABORTED || err == EBADF;
}

// An exception answered by the module: the connection itself is fine.
bool IsModbusException(int err) { return err >= EMBXILFUN && err <= EMBXGTAR; }

bool ParsePort(const std::string& text, int& port) {
    if (text.empty() || text.size() > 5) return false;
    int value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    if (value < 1 || value > 65535) return false;
    port = value;
    return true;
}

}  // namespace

struct ModbusIOModule::Link {
    modbus_t* pCtx = nullptr;
    bool blConnected = false;
};

ModbusIOModule::ModbusIOModule(std::string host, int port, int unitId)
    : m_strHost(std::move(host)), m_Port(port), m_UnitId(unitId), m_pLink(std::make_unique<Link>()) {}

ModbusIOModule::~ModbusIOModule() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    DisconnectLocked();
    if (m_pLink->pCtx) modbus_free(m_pLink->pCtx);
}

std::string ModbusIOModule::Address() const {
    const bool ipv6 = m_strHost.find(':') != std::string::npos;
    return (ipv6 ? "[" + m_strHost + "]" : m_strHost) + ":" + std::to_string(m_Port);
}

std::string ModbusIOModule::Describe() const {
    return "Modbus/TCP I/O module at " + Address() + ", unit " + std::to_string(m_UnitId);
}

bool ModbusIOModule::ConnectLocked(std::string& error) {
    const std::string prefix = "Modbus/TCP I/O module " + Address() + ": ";
    if (m_strHost.empty()) {
        error = prefix + "no host given";
        return false;
    }
    if (m_Port < 1 || m_Port > 65535) {
        error = prefix + "port " + std::to_string(m_Port) + " out of range 1..65535";
        return false;
    }
    if (!m_pLink->pCtx) {
        // The protocol-independent variant takes host names and IPv6 addresses too.
        modbus_t* pCtx = modbus_new_tcp_pi(m_strHost.c_str(), std::to_string(m_Port).c_str());
        if (!pCtx) {
            error = prefix + "cannot set up a connection: " + modbus_strerror(errno);
            return false;
        }
        if (modbus_set_slave(pCtx, m_UnitId) != 0) {
            error = prefix + "unit id " + std::to_string(m_UnitId) + " refused: " + modbus_strerror(errno);
            modbus_free(pCtx);
            return false;
        }
        modbus_set_response_timeout(pCtx, kResponseTimeoutSec, 0);
        m_pLink->pCtx = pCtx;
    }
    if (modbus_connect(m_pLink->pCtx) != 0) {
        error = prefix + "cannot connect: " + modbus_strerror(errno);
        modbus_close(m_pLink->pCtx);
        return false;
    }
    m_pLink->blConnected = true;
    return true;
}

void ModbusIOModule::DisconnectLocked() {
    if (m_pLink->blConnected) modbus_close(m_pLink->pCtx);
    m_pLink->blConnected = false;
}

bool ModbusIOModule::SetDigitalOutput(int idx, bool state, std::string& error) {
    if (idx < 0 || idx > 0xFFFF) {
        error = "Modbus/TCP I/O module " + Address() + ": digital output " + std::to_string(idx) +
                " is no coil address (0..65535)";
        return false;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    for (int attempt = 0;; ++attempt) {
        bool blFresh = false;
        if (!m_pLink->blConnected) {
            if (!ConnectLocked(error)) return false;
            blFresh = true;
        }
        if (modbus_write_bit(m_pLink->pCtx, idx, state ? 1 : 0) != -1) return true;
        const int err = errno;
        // After anything but the module's own exception the link is in doubt (a late answer
        // would be taken for the next request's): start the next request on a new one.
        if (!IsModbusException(err)) DisconnectLocked();
        // A kept connection may have been closed by the module while idle; one new
        // connection tells that apart from a module that is gone.
        if (!blFresh && attempt == 0 && IsDroppedConnection(err)) continue;
        error = "Modbus/TCP I/O module " + Address() + ": cannot set coil " + std::to_string(idx) + " to " +
                (state ? "on" : "off") + ": " + modbus_strerror(err);
        return false;
    }
}

bool ModbusIOModule::GetDigitalOutput(int idx, bool& state, std::string& error) {
    if (idx < 0 || idx > 0xFFFF) {
        error = "Modbus/TCP I/O module " + Address() + ": digital output " + std::to_string(idx) +
                " is no coil address (0..65535)";
        return false;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    for (int attempt = 0;; ++attempt) {
        bool blFresh = false;
        if (!m_pLink->blConnected) {
            if (!ConnectLocked(error)) return false;
            blFresh = true;
        }
        uint8_t bit = 0;
        if (modbus_read_bits(m_pLink->pCtx, idx, 1, &bit) == 1) {
            state = bit != 0;
            return true;
        }
        const int err = errno;
        if (!IsModbusException(err)) DisconnectLocked();
        if (!blFresh && attempt == 0 && IsDroppedConnection(err)) continue;
        error = "Modbus/TCP I/O module " + Address() + ": cannot read coil " + std::to_string(idx) + ": " +
                modbus_strerror(err);
        return false;
    }
}

bool ModbusIOModule::CheckReachable(std::string& error) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_pLink->blConnected) return true;
    return ConnectLocked(error);
}

bool ModbusIOModule::StartFileAudioOut(const std::string& /*filePath*/, bool /*isManual*/, std::string& error) {
    error = "Modbus/TCP I/O module has no audio output (" + Address() + ")";
    return false;
}

bool ParseModbusAddress(const std::string& text, std::string& host, int& port, std::string& error) {
    std::string hostPart;
    std::string portPart;
    if (!text.empty() && text[0] == '[') {
        const size_t close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
            error = "bad Modbus/TCP address '" + text + "': expected [IPv6 address]:port";
            return false;
        }
        hostPart = text.substr(1, close - 1);
        portPart = text.substr(close + 2);
    } else {
        const size_t colon = text.rfind(':');
        if (colon == std::string::npos || text.find(':') != colon) {
            error = "bad Modbus/TCP address '" + text + "': expected host:port";
            return false;
        }
        hostPart = text.substr(0, colon);
        portPart = text.substr(colon + 1);
    }
    if (hostPart.empty()) {
        error = "bad Modbus/TCP address '" + text + "': no host";
        return false;
    }
    int value = 0;
    if (!ParsePort(portPart, value)) {
        error = "bad Modbus/TCP address '" + text + "': port '" + portPart + "' is not 1..65535";
        return false;
    }
    host = hostPart;
    port = value;
    return true;
}

}  // namespace tw::host
