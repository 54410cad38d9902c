// Platform-independent port classes: what the output sends buffers through and what input
// devices are opened as, plus the endpoint record the host shows the user.
#pragma once

#include <memory>
#include <mutex>
#include <string>

class MidiBuffer;

/// A MIDI device of one direction, identified by the operating system's device number.
class MidiPort {
  public:
    explicit MidiPort(unsigned char portIndex) : portIndex_(portIndex) {}
    MidiPort(const MidiPort&) = default;
    MidiPort& operator=(const MidiPort&) = default;
    virtual ~MidiPort() = default;

    /// Gives the port a persistent id; returns whether the platform accepted it.
    virtual bool SetUniqueId(int uniqueId) = 0;
    virtual std::string GetDisplayName() = 0;
    virtual int GetUniqueId() = 0;

    unsigned char GetPortIndex() const { return portIndex_; }

  private:
    unsigned char portIndex_;
};

class MidiInputPort : public MidiPort {
  public:
    using MidiPort::MidiPort;
    /// Starts delivering input; does nothing here.
    virtual void Start() {}
};

class MidiOutputPort : public MidiPort {
  public:
    using MidiPort::MidiPort;
    /// Sends one buffer's events for this port.
    virtual void SendMidiBuffer(MidiBuffer& buffer) = 0;
};

/// Base of the Windows port classes. Windows ports have no persistent unique id: every port
/// answers 0. The recursive mutex guards the subclasses' device handles.
class MidiPortWin32 : public MidiPort {
  public:
    /// The flag is accepted and ignored.
    MidiPortWin32(unsigned char portIndex, bool) : MidiPort(portIndex) {}
    ~MidiPortWin32() override = default;

    /// Accepts any value, stores nothing.
    bool SetUniqueId(int) override { return true; }
    std::string GetDisplayName() override { return std::string(); }
    int GetUniqueId() override { return 0; }

  protected:
    std::recursive_mutex portMutex_;
};

/// The set of output ports a MidiOutput sends through.
class MidiOutputPorts {
  public:
    virtual ~MidiOutputPorts() = default;
    /// Sends every port's part of the buffer.
    virtual void SendMidiBuffer(MidiBuffer& buffer) = 0;
    /// Makes the buffer known to the ports before it is first sent (the Windows ports prepare
    /// its stream headers).
    virtual void RegisterMidiBuffer(std::shared_ptr<MidiBuffer> buffer) = 0;
};

/// An input device the command mapper can start.
class MidiInputInterface {
  public:
    virtual ~MidiInputInterface() = default;
    virtual void Start() = 0;
    virtual unsigned char GetPortIndex() = 0;
};

/// A port as the host offers it to the user: its position in the list of all ports of its
/// direction (also its device index) and its name.
class MidiEndPoint {
  public:
    MidiEndPoint() = default;
    MidiEndPoint(int sourceIndex, const std::string& sourceName)
        : sourceIndex_(sourceIndex), sourceName_(sourceName) {}

    int GetSourceIndex() const { return sourceIndex_; }
    const std::string& GetSourceName() const { return sourceName_; }

  private:
    int sourceIndex_ = 0;
    std::string sourceName_;
};
