// The multimedia MIDI service on POSIX: MIDI output (plain and stream), MIDI input, device
// listing, capabilities and error texts, with the Windows names, types, constants, struct
// layouts and result numbers, implemented in libvelt_platform.
//
// Devices. Device ids are positions in the current device list, which is built afresh on every
// call that takes a device id:
//   outputs: the virtual outputs (platform/virtual_midi.h) in creation order, then the system's
//            MIDI destinations reached through RtMidi (ALSA sequencer, JACK) when the library was
//            built with RtMidi, then - only when the list would otherwise be empty - the built-in
//            default output "Built-in Default Output", which records what it receives.
//   inputs:  the virtual inputs in creation order, then the system's MIDI sources through RtMidi.
// As on Windows, ids shift when devices come and go; a handle stays bound to the device it was
// opened on. MIDI_MAPPER (-1) names output device 0 (there is no mapper on POSIX).
//
// Threads. Every open handle owns one service thread ("mm_midi_out" / "mm_midi_in"). MOM_DONE,
// MOM_POSITIONCB, MIM_DATA and MIM_LONGDATA callbacks are made on it, one at a time and in order,
// never on the thread that called the service. MOM_OPEN/MOM_CLOSE and MIM_OPEN/MIM_CLOSE are
// made on the calling thread inside the open and close calls, as Windows drivers do. No lock of
// the service is held while a callback runs, so a callback may call midiOutShortMsg,
// midiOutLongMsg and midiStreamOut on its own handle; a handle cannot be closed from its own
// callback (MMSYSERR_HANDLEBUSY instead of the deadlock Windows would give). An exception
// thrown by a callback is caught, reported on the standard error stream and dropped.
//
// Only CALLBACK_NULL and CALLBACK_FUNCTION are offered: there are no windows, message queues or
// event objects to post to (CALLBACK_WINDOW, CALLBACK_THREAD and CALLBACK_EVENT give
// MMSYSERR_NOTSUPPORTED).
//
// Devices are opened exclusively, as most Windows MIDI drivers do: a second open of a virtual or
// default device that is already open gives MMSYSERR_ALLOCATED. System ports can be opened
// more than once (each open is its own client connection).
#pragma once

#include "win_types.h"

#ifndef DECLARE_HANDLE
#define DECLARE_HANDLE(name) \
    struct name##__ {        \
        int unused;          \
    };                       \
    typedef struct name##__* name
#endif

typedef BYTE* LPBYTE;  // identical redeclaration is harmless if another header has it

DECLARE_HANDLE(HDRVR);
DECLARE_HANDLE(HMIDI);
DECLARE_HANDLE(HMIDIIN);
DECLARE_HANDLE(HMIDIOUT);
DECLARE_HANDLE(HMIDISTRM);
typedef HMIDIIN* LPHMIDIIN;
typedef HMIDIOUT* LPHMIDIOUT;
typedef HMIDISTRM* LPHMIDISTRM;

// Callback of every MIDI handle opened with CALLBACK_FUNCTION. The first argument is the handle
// the message is about (an HMIDIOUT, HMIDIIN or the stream's handle), dwInstance is the value
// given at open, dwParam1/dwParam2 depend on the message (see the MOM_* and MIM_* constants).
typedef void(CALLBACK DRVCALLBACK)(HDRVR hdrvr, UINT uMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1,
                                   DWORD_PTR dwParam2);
typedef DRVCALLBACK* LPDRVCALLBACK;
typedef DRVCALLBACK MIDICALLBACK;
typedef MIDICALLBACK* LPMIDICALLBACK;

#define MAXPNAMELEN 32
#define MAXERRORLENGTH 256
#define MIDI_MAPPER (static_cast<UINT>(-1))

// Result numbers of the MIDI calls, after the shared MMSYSERR_* ones.
#define MIDIERR_BASE 64
#define MIDIERR_UNPREPARED (MIDIERR_BASE + 0)    // header not prepared
#define MIDIERR_STILLPLAYING (MIDIERR_BASE + 1)  // buffers still queued
#define MIDIERR_NOMAP (MIDIERR_BASE + 2)
#define MIDIERR_NOTREADY (MIDIERR_BASE + 3)
#define MIDIERR_NODEVICE (MIDIERR_BASE + 4)  // port no longer connected
#define MIDIERR_INVALIDSETUP (MIDIERR_BASE + 5)
#define MIDIERR_BADOPENMODE (MIDIERR_BASE + 6)
#define MIDIERR_DONT_CONTINUE (MIDIERR_BASE + 7)
#define MIDIERR_LASTERROR (MIDIERR_BASE + 7)

// Open flags: how callbacks are delivered.
#define CALLBACK_TYPEMASK 0x00070000u
#define CALLBACK_NULL 0x00000000u
#define CALLBACK_WINDOW 0x00010000u
#define CALLBACK_TASK 0x00020000u
#define CALLBACK_FUNCTION 0x00030000u
#define CALLBACK_THREAD CALLBACK_TASK
#define CALLBACK_EVENT 0x00050000u
#define MIDI_IO_STATUS 0x00000020u

// Callback messages. MOM_DONE and MIM_LONGDATA carry the LPMIDIHDR in dwParam1; MOM_POSITIONCB
// carries the LPMIDIHDR whose dwOffset names the event; MIM_DATA carries the message in
// dwParam1 (status in the low byte, then data 1, then data 2) and the time in milliseconds since
// midiInStart in dwParam2.
#define MM_MIM_OPEN 0x3C1
#define MM_MIM_CLOSE 0x3C2
#define MM_MIM_DATA 0x3C3
#define MM_MIM_LONGDATA 0x3C4
#define MM_MIM_ERROR 0x3C5
#define MM_MIM_LONGERROR 0x3C6
#define MM_MOM_OPEN 0x3C7
#define MM_MOM_CLOSE 0x3C8
#define MM_MOM_DONE 0x3C9
#define MM_MOM_POSITIONCB 0x3CA
#define MM_MIM_MOREDATA 0x3CC
#define MIM_OPEN MM_MIM_OPEN
#define MIM_CLOSE MM_MIM_CLOSE
#define MIM_DATA MM_MIM_DATA
#define MIM_LONGDATA MM_MIM_LONGDATA
#define MIM_ERROR MM_MIM_ERROR
#define MIM_LONGERROR MM_MIM_LONGERROR
#define MIM_MOREDATA MM_MIM_MOREDATA
#define MOM_OPEN MM_MOM_OPEN
#define MOM_CLOSE MM_MOM_CLOSE
#define MOM_DONE MM_MOM_DONE
#define MOM_POSITIONCB MM_MOM_POSITIONCB

// Output technologies (MIDIOUTCAPS wTechnology).
#define MOD_MIDIPORT 1
#define MOD_SYNTH 2
#define MOD_SQSYNTH 3
#define MOD_FMSYNTH 4
#define MOD_MAPPER 5
#define MOD_WAVETABLE 6
#define MOD_SWSYNTH 7

// Optional output support (MIDIOUTCAPS dwSupport).
#define MIDICAPS_VOLUME 0x0001
#define MIDICAPS_LRVOLUME 0x0002
#define MIDICAPS_CACHE 0x0004
#define MIDICAPS_STREAM 0x0008

// Manufacturer and product ids of devices without registered ones.
#define MM_UNMAPPED 0xFFFF
#define MM_PID_UNMAPPED 0xFFFF

// MIDIHDR dwFlags.
#define MHDR_DONE 0x00000001u
#define MHDR_PREPARED 0x00000002u
#define MHDR_INQUEUE 0x00000004u
#define MHDR_ISSTRM 0x00000008u

// Stream events: dwEvent holds the event type in its top byte and the parameter in the low 24
// bits; MEVT_F_LONG marks an event followed by dwParms data (length in the low 24 bits, padded to
// whole DWORDs); MEVT_F_CALLBACK asks for MOM_POSITIONCB when the event is played.
#define MEVT_F_SHORT 0x00000000u
#define MEVT_F_LONG 0x80000000u
#define MEVT_F_CALLBACK 0x40000000u
#define MEVT_EVENTTYPE(x) (static_cast<BYTE>(((x) >> 24) & 0xFF))
#define MEVT_EVENTPARM(x) (static_cast<DWORD>((x) & 0x00FFFFFFu))
#define MEVT_SHORTMSG (static_cast<BYTE>(0x00))
#define MEVT_TEMPO (static_cast<BYTE>(0x01))
#define MEVT_NOP (static_cast<BYTE>(0x02))
#define MEVT_LONGMSG (static_cast<BYTE>(0x80))
#define MEVT_COMMENT (static_cast<BYTE>(0x82))
#define MEVT_VERSION (static_cast<BYTE>(0x84))

// midiStreamProperty flags and properties.
#define MIDIPROP_SET 0x80000000u
#define MIDIPROP_GET 0x40000000u
#define MIDIPROP_TIMEDIV 0x00000001u
#define MIDIPROP_TEMPO 0x00000002u

// The system headers pack every multimedia struct to 1 byte; the sizes below are the ones the
// engine passes as cbMidiHdr / cbmoc / cbmic.
#pragma pack(push, 1)

typedef struct midihdr_tag {
    LPSTR lpData;             // the buffer
    DWORD dwBufferLength;     // its size in bytes
    DWORD dwBytesRecorded;    // bytes of stream events in it (streams) / bytes received (input)
    DWORD_PTR dwUser;         // the application's own value
    DWORD dwFlags;            // MHDR_*
    struct midihdr_tag* lpNext;
    DWORD_PTR reserved;
    DWORD dwOffset;           // offset of the event that caused MOM_POSITIONCB
    DWORD_PTR dwReserved[8];
} MIDIHDR, *PMIDIHDR, *NPMIDIHDR, *LPMIDIHDR;

typedef struct midievent_tag {
    DWORD dwDeltaTime;  // ticks since the previous event
    DWORD dwStreamID;   // 0 (one stream per handle)
    DWORD dwEvent;      // MEVT_* type in the top byte, parameter below
    DWORD dwParms[1];   // data of MEVT_F_LONG events
} MIDIEVENT, *LPMIDIEVENT;

typedef struct midiproptimediv_tag {
    DWORD cbStruct;
    DWORD dwTimeDiv;  // ticks per quarter note, or SMPTE frames (negative high byte) and ticks
} MIDIPROPTIMEDIV, *LPMIDIPROPTIMEDIV;

typedef struct midiproptempo_tag {
    DWORD cbStruct;
    DWORD dwTempo;  // microseconds per quarter note
} MIDIPROPTEMPO, *LPMIDIPROPTEMPO;

typedef struct tagMIDIOUTCAPSW {
    WORD wMid;
    WORD wPid;
    MMVERSION vDriverVersion;
    WCHAR szPname[MAXPNAMELEN];
    WORD wTechnology;
    WORD wVoices;
    WORD wNotes;
    WORD wChannelMask;
    DWORD dwSupport;
} MIDIOUTCAPSW, *PMIDIOUTCAPSW, *NPMIDIOUTCAPSW, *LPMIDIOUTCAPSW;

typedef struct tagMIDIINCAPSW {
    WORD wMid;
    WORD wPid;
    MMVERSION vDriverVersion;
    WCHAR szPname[MAXPNAMELEN];
    DWORD dwSupport;
} MIDIINCAPSW, *PMIDIINCAPSW, *NPMIDIINCAPSW, *LPMIDIINCAPSW;

#pragma pack(pop)

static_assert(sizeof(void*) != 8 || sizeof(MIDIHDR) == 112, "MIDIHDR is 112 bytes on 64-bit");
static_assert(sizeof(MIDIEVENT) == 16, "a short stream event is the first 12 bytes");
static_assert(sizeof(MIDIOUTCAPSW) == 84);
static_assert(sizeof(MIDIINCAPSW) == 76);

typedef MIDIOUTCAPSW MIDIOUTCAPS;
typedef MIDIINCAPSW MIDIINCAPS;
typedef LPMIDIOUTCAPSW LPMIDIOUTCAPS;
typedef LPMIDIINCAPSW LPMIDIINCAPS;

// ---- Output devices ------------------------------------------------------------------------

// Number of output devices in the current list (see the top of this file). Never 0: the
// built-in default output is listed when nothing else is.
VELT_PLATFORM_EXTERN_C UINT WINAPI midiOutGetNumDevs(void);

// Fills up to cbmoc bytes of the capabilities of the output device uDeviceID (a device id,
// MIDI_MAPPER, or an open HMIDIOUT/HMIDISTRM cast to UINT_PTR). szPname is the device name as
// UTF-16, cut to 31 code units and zero-terminated. wMid/wPid are MM_UNMAPPED/MM_PID_UNMAPPED,
// vDriverVersion 0x0100, wTechnology MOD_MIDIPORT (MOD_SWSYNTH for the built-in default output),
// wVoices and wNotes 0, wChannelMask 0xFFFF, dwSupport MIDICAPS_STREAM.
// MMSYSERR_BADDEVICEID for an id past the list, MMSYSERR_INVALPARAM for a null pointer.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiOutGetDevCapsW(UINT_PTR uDeviceID, LPMIDIOUTCAPSW pmoc,
                                                          UINT cbmoc);

// Copies the text of a result number, zero-terminated and cut to cchText characters. The texts
// are this service's own wording (in English), not the system's localised ones.
// MMSYSERR_BADERRNUM for a number with no text, MMSYSERR_INVALPARAM for a null buffer or size 0.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiOutGetErrorTextW(MMRESULT mmrError, LPWSTR pszText,
                                                            UINT cchText);

// Opens output device uDeviceID for plain sends. Sends MOM_OPEN on the calling thread before it
// returns. MMSYSERR_BADDEVICEID, MMSYSERR_ALLOCATED (already open), MMSYSERR_INVALPARAM (null
// phmo), MMSYSERR_NOTSUPPORTED (a callback kind other than NULL or FUNCTION), or the failure a
// virtual device was told to give.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiOutOpen(LPHMIDIOUT phmo, UINT uDeviceID,
                                                   DWORD_PTR dwCallback, DWORD_PTR dwInstance,
                                                   DWORD fdwOpen);

// Sends one short message synchronously on the calling thread: status in the low byte, then
// data 1 and data 2. A message without a status byte uses running status (the last channel
// status sent on this handle); one with no status to run on, or a SysEx status (0xF0/0xF7),
// gives MMSYSERR_INVALPARAM. Works on stream handles too. Ordering against stream events that the
// service thread is playing at the same moment is not defined. MIDIERR_NODEVICE when the device
// has gone away.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiOutShortMsg(HMIDIOUT hmo, DWORD dwMsg);

// Queues the dwBufferLength bytes of a prepared header to be sent as one message (normally a
// complete SysEx) on the service thread, and hands the header back with MOM_DONE (MHDR_DONE set,
// MHDR_INQUEUE cleared). Long messages are sent even while a stream is paused.
// MIDIERR_UNPREPARED, MIDIERR_STILLPLAYING (header already queued), MMSYSERR_INVALPARAM.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiOutLongMsg(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh);

// Turns off every note this handle turned on (note-off for each sounding note) and sends
// controller 123 (all notes off) on all 16 channels, then returns every queued long-message
// and stream buffer with MOM_DONE. On a stream handle the stream is also stopped as by
// midiStreamStop. Returns after the MOM_DONE callbacks have been made (unless called from the
// handle's own callback).
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiOutReset(HMIDIOUT hmo);

// Closes a handle from midiOutOpen (a stream handle is closed as by midiStreamClose). Fails
// with MIDIERR_STILLPLAYING while long-message buffers are queued (midiOutReset returns them).
// Sends MOM_CLOSE on the calling thread; no callback follows it.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiOutClose(HMIDIOUT hmo);

// Marks a header prepared (MHDR_PREPARED) for use with this handle. A header that is already
// prepared is left as it is (MMSYSERR_NOERROR). The buffer is not locked or copied: it must stay
// valid until the header is unprepared. MMSYSERR_INVALPARAM for a null header, null lpData with a
// non-zero length, or cbmh smaller than the header up to dwOffset.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiOutPrepareHeader(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh);

// Clears MHDR_PREPARED. MIDIERR_STILLPLAYING while the header is queued (MHDR_INQUEUE);
// a header that is not prepared is left as it is (MMSYSERR_NOERROR).
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiOutUnprepareHeader(HMIDIOUT hmo, LPMIDIHDR pmh,
                                                              UINT cbmh);

// ---- Stream output -------------------------------------------------------------------------

// Opens output device *puDeviceID as a stream. cMidi must be 1. The stream starts paused:
// buffers queue but nothing plays until midiStreamRestart. Time division 96 ticks per quarter
// note at 500000 microseconds per quarter note until changed by midiStreamProperty or a
// MEVT_TEMPO event. Sends MOM_OPEN on the calling thread. Errors as midiOutOpen, and
// MMSYSERR_INVALPARAM for a null pointer or cMidi other than 1.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiStreamOpen(LPHMIDISTRM phms, LPUINT puDeviceID,
                                                      DWORD cMidi, DWORD_PTR dwCallback,
                                                      DWORD_PTR dwInstance, DWORD fdwOpen);

// Stops the stream (returning every queued buffer with MOM_DONE, as midiStreamStop) and closes
// it; sends MOM_CLOSE on the calling thread after the last MOM_DONE. Never fails with
// MIDIERR_STILLPLAYING (Windows documents none for this call).
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiStreamClose(HMIDISTRM hms);

// Queues a prepared header: its first dwBytesRecorded bytes are stream events (MIDIEVENT;
// 12 bytes for short events, more for MEVT_F_LONG ones). Buffers play in the order queued; a
// buffer's events play at their delta times (ticks, accumulated over the whole stream as the
// stream's time runs; an event whose time has passed plays at once). MEVT_SHORTMSG is sent,
// MEVT_LONGMSG sent as one message, MEVT_TEMPO changes the tempo, MEVT_NOP and unknown types do
// nothing; MEVT_F_CALLBACK gives MOM_POSITIONCB (dwOffset set) after the event. When the last
// event has played the header gets MHDR_DONE, loses MHDR_INQUEUE and comes back with MOM_DONE on
// the service thread, one buffer after the other. Sets MHDR_ISSTRM and MHDR_INQUEUE.
// MIDIERR_UNPREPARED, MIDIERR_STILLPLAYING (header already queued), MMSYSERR_INVALPARAM (null
// header, cbmh < sizeof(MIDIHDR), dwBytesRecorded > dwBufferLength). The 64 KB buffer limit of
// Windows is not enforced.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiStreamOut(HMIDISTRM hms, LPMIDIHDR pmh, UINT cbmh);

// Starts a paused or stopped stream; has no effect on a playing one. After a pause the stream's
// time goes on from where it paused; after a stop (or on the first start) from now.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiStreamRestart(HMIDISTRM hms);

// Pauses the stream: the event being waited for stays due, queued buffers stay queued. Notes
// are not turned off.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiStreamPause(HMIDISTRM hms);

// Stops the stream: sends note-off for every note the stream turned on and not off, then
// returns every queued buffer (stream and long-message) with MOM_DONE (MHDR_DONE set,
// MHDR_INQUEUE cleared, in queue order); the stream stays stopped until midiStreamRestart.
// On return all those headers are already marked done and their callbacks have been made, so
// they can be unprepared at once (when called from the handle's own callback the callbacks
// follow after it returns).
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiStreamStop(HMIDISTRM hms);

// Reads or sets the stream's time division (MIDIPROP_TIMEDIV, LPMIDIPROPTIMEDIV) or tempo
// (MIDIPROP_TEMPO, LPMIDIPROPTEMPO) with MIDIPROP_GET or MIDIPROP_SET. The time division can
// only be set while the stream is stopped (MMSYSERR_INVALPARAM otherwise, as on Windows).
// MMSYSERR_INVALPARAM for a null pointer, a wrong cbStruct or both/neither of GET and SET;
// MMSYSERR_INVALFLAG for an unknown property.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiStreamProperty(HMIDISTRM hms, LPBYTE lppropdata,
                                                          DWORD dwProperty);

// ---- Input devices -------------------------------------------------------------------------

// Number of input devices in the current list (may be 0).
VELT_PLATFORM_EXTERN_C UINT WINAPI midiInGetNumDevs(void);

// As midiOutGetDevCapsW for input devices (dwSupport 0).
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiInGetDevCapsW(UINT_PTR uDeviceID, LPMIDIINCAPSW pmic,
                                                         UINT cbmic);

// Same texts as midiOutGetErrorTextW.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiInGetErrorTextW(MMRESULT mmrError, LPWSTR pszText,
                                                           UINT cchText);

// Opens input device uDeviceID, stopped. Sends MIM_OPEN on the calling thread. Flags:
// CALLBACK_NULL or CALLBACK_FUNCTION, optionally MIDI_IO_STATUS (accepted; MIM_MOREDATA is
// never sent because every message is delivered as it comes). MMSYSERR_BADDEVICEID,
// MMSYSERR_ALLOCATED, MMSYSERR_INVALPARAM, MMSYSERR_NOTSUPPORTED, or a system port's failure
// (MMSYSERR_ERROR).
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiInOpen(LPHMIDIIN phmi, UINT uDeviceID,
                                                  DWORD_PTR dwCallback, DWORD_PTR dwInstance,
                                                  DWORD fdwOpen);

// Starts input: from now on each short message arrives as MIM_DATA (dwParam1 = status |
// data1 << 8 | data2 << 16, unused bytes 0; dwParam2 = milliseconds since this start) and each
// SysEx fills the queued input buffers, each returned with MIM_LONGDATA when full or when the
// message ends. A SysEx that finds no buffer queued is dropped. Messages arriving while stopped
// are dropped. Starting a started handle has no effect.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiInStart(HMIDIIN hmi);

// Stops input; messages already received are still delivered. Queued input buffers stay queued.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiInStop(HMIDIIN hmi);

// Stops input, drops messages not yet delivered and returns every queued input buffer with
// MIM_LONGDATA (MHDR_DONE set). Returns after those callbacks (unless called from the
// handle's own callback).
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiInReset(HMIDIIN hmi);

// Closes an input handle: MIDIERR_STILLPLAYING while input buffers are queued. Waits until no
// callback of the handle is running, then sends MIM_CLOSE on the calling thread; no callback
// follows it. Messages that arrive during the close are dropped.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiInClose(HMIDIIN hmi);

// Input buffers for SysEx, as midiOutPrepareHeader / midiOutUnprepareHeader.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiInPrepareHeader(HMIDIIN hmi, LPMIDIHDR pmh, UINT cbmh);
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiInUnprepareHeader(HMIDIIN hmi, LPMIDIHDR pmh, UINT cbmh);

// Queues a prepared, empty input buffer for SysEx (dwBytesRecorded set to 0, MHDR_INQUEUE set,
// MHDR_DONE cleared). MIDIERR_UNPREPARED, MIDIERR_STILLPLAYING (already queued),
// MMSYSERR_INVALPARAM.
VELT_PLATFORM_EXTERN_C MMRESULT WINAPI midiInAddBuffer(HMIDIIN hmi, LPMIDIHDR pmh, UINT cbmh);
