#ifndef NK_TOOLS_DEVICE_JOB_H
#define NK_TOOLS_DEVICE_JOB_H

#include <string>

#include "tBlob.h"

class Device;

// A request whose work is heavy (merging a large schedule set, checking and saving an
// image): the server that runs the device does it away from the thread that serves the
// links, so the other stations keep their answers meanwhile. Jobs run one at a time, in the
// order their requests arrived:
//   start(device)    on the device's thread: takes what the work needs from the device;
//   work()           on any thread: touches nothing but the job and the data directory's
//                    files the job owns;
//   finish(device)   on the device's thread: puts the result in force and leaves the
//                    serialized answer in answer (empty: nothing to answer).
// A server drops a job whose station has gone before it started; one whose station goes
// while it works is finished only if the work itself changed the device (keptWhenAbandoned:
// saved image files), and is never answered.
class DeviceJob
{
public:
    virtual ~DeviceJob() = default;
    virtual void start(Device& device) = 0;
    virtual void work() = 0;
    virtual void finish(Device& device, tBlob& answer) = 0;
    // For the event log when the job is dropped.
    virtual std::string what() const = 0;
    virtual bool keptWhenAbandoned() const { return false; }
};

#endif
