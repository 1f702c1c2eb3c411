// The requests of "twhost ioaction": one JSON object each, from the command line or a line of
// standard input, checked and turned into what the executor's DoAction takes.
#ifndef TWHOST_IOACTIONREQUEST_H
#define TWHOST_IOACTIONREQUEST_H

#include <map>
#include <string>

#include "twhost/plugin.h"

namespace tw::host {

// One input line, understood.
struct IOActionRequest {
    enum Kind { kDO, kAudio, kManualDO, kManualAudio, kWait } kind = kDO;
    int flags = 0;
    std::map<int, IOActExecCond> audio;
    std::map<int, IOActExecCond> outputs;
    int port = 0;
    bool blOn = false;
    double seconds = 0.0;
};

// Parses one request line. The forms:
//   {"do":"start","ports":[0,1],"hold":5,"mode":0,"state":true}   hold -2: until stopped
//   {"do":"stop","ports":[0]}
//   {"audio":"start","pattern":12,"times":3,"gap":2,"mode":0}
//   {"audio":"stop"}
//   {"manual_do":1}   {"manual_audio":true}   {"wait":2.5}
// False with error set (naming the field) for anything else.
bool ParseIOActionRequest(const std::string& line, IOActionRequest& req, std::string& error);

}  // namespace tw::host

#endif
