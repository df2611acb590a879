/*
 * Pulsekit3Simulator: radars on a simulated bench, seen through the table of D2XX functions that the bridge driver calls.
 *
 *   QTXSim_Reset();
 *   QTXSim_AddRadar("FT0001AB", "Radar", QTXSIM_FT232H, "QTX-K245", "QTX3701");
 *   FTx232H_SetD2XX(QTXSim_D2XX());
 *
 * It is a bridge library, too: it exports the thirteen functions under their D2XX names, so that any program runs on it
 * unchanged that is started with PULSEKIT3_BRIDGE_LIBRARY naming this library. Unless radars were added before, the first
 * such call plugs in one FT232H, serial number SIM00001, with a QTX-K245 and a QTX3701; the record is off. From the
 * environment:
 *   PULSEKIT3_SCENE            a scene file (QTXSim_LoadScene), which may say which radars there are, too; none: the
 *                              scene that a chip sees until one is set
 *   PULSEKIT3_SIMULATED_TIME   real (the default: calls take as long as on hardware), host, or deterministic (quick)
 *   PULSEKIT3_SIMULATED_BRIDGE FT232H (the default), FT2232H or FT4232H
 *   PULSEKIT3_SIMULATED_CHIP   QTX3701 (the default), another model, or none: a board with its flash alone
 * A wrong one of them refuses the library: FTx232H_DescribeBridgeLibraries tells why.
 *
 * Rules
 *  1. There is one bench in a process. A lock guards it; functions that hand out pointers say how long these stay valid.
 *  2. A device is a number counted from 0 in the order of adding. Functions on a device return 0, or -1 where the device
 *     does not exist, lacks the part in question (no board, no flash, no chip) or an argument is out of range; nothing
 *     changes then. Null pointers count as out of range.
 *  3. Times are nanoseconds of the host's simulated clock, which QTXSim_Reset sets to 0. Bridges work while the host goes
 *     on: what a Write handed over happens when its time has come, and every function here shows the bench as it is at
 *     the host's time. QTXSim_Advance lets things happen that nobody waits for.
 *  4. Counting "from now" starts at 1: the next call, byte or operation is the first.
 */
#ifndef PULSEKIT3_SIMULATOR_H
#define PULSEKIT3_SIMULATOR_H

#include <stdint.h>

#include "FTx232H_D2XX.h"

#if defined(_WIN32) && defined(PULSEKIT3_SIMULATOR_BUILD)
#define QTXSIM_API __declspec(dllexport)
#elif defined(_WIN32)
#define QTXSIM_API __declspec(dllimport)
#elif defined(__GNUC__)
#define QTXSIM_API __attribute__((visibility("default")))
#else
#define QTXSIM_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Bench ------------------------------------------------------------------------------------------------------ */

/* The thirteen functions; the table lives as long as the process. */
QTXSIM_API const FTx232H_D2XX *QTXSim_D2XX(void);

/* Empties the bench: no devices, no faults, no record, deterministic time 0. D2XX handles that are still open become
   invalid (status 1). */
QTXSIM_API void QTXSim_Reset(void);

/* ---- Devices ---------------------------------------------------------------------------------------------------- */

enum { QTXSIM_FT232H = 0, QTXSIM_FT2232H = 1, QTXSIM_FT4232H = 2 };

/* Plugs in a bridge and returns its device number, or -1. serial: 1 to 15 characters (14 on the bridges with channels,
   which list it with the channel's letter); description: at most 63 (61) characters, null is "".
   board: what hangs on channel A. Null: nothing. "": a board whose one-time-programmable area was never written. Else
   the name that this area holds, at most 31 characters.
   chip: "QTX3400", "QTX3500", "QTX3701", "QTX3702", or null for a board without a chip. */
QTXSIM_API int32_t QTXSim_AddRadar(const char *serial, const char *description, int32_t bridge, const char *board,
                                   const char *chip);

/* Whether another process has the bridge open. */
QTXSIM_API int32_t QTXSim_SetHeld(int32_t device, int32_t held);

/* Pulling the plug takes the board's power too. Handles to an unplugged bridge answer status 4 even after it is back;
   closing them succeeds. */
QTXSIM_API int32_t QTXSim_Unplug(int32_t device);
QTXSIM_API int32_t QTXSim_Replug(int32_t device);

/* Takes the board's power away and gives it back: chip and flash start anew, stored data stays. */
QTXSIM_API int32_t QTXSim_PowerCycle(int32_t device);

/* ---- Time ------------------------------------------------------------------------------------------------------- */

enum {
  /* Only the bus, the SPI clock and the hardware take time; what the host does between calls takes none. The default.
     Every status read that finds the flash busy counts 1 ms, for the pause of the driver that isn't counted. */
  QTXSIM_TIME_DETERMINISTIC = 0,
  /* The real time that passes between two calls counts too. */
  QTXSIM_TIME_HOST = 1,
  /* As before, and every call really takes as long as modelled. */
  QTXSIM_TIME_REAL = 2
};
/* Returns 0, or -1 for another mode. */
QTXSIM_API int32_t QTXSim_SetTime(int32_t mode);
QTXSIM_API uint64_t QTXSim_Nanoseconds(void);
/* The host does something else for so long. */
QTXSIM_API void QTXSim_Advance(uint64_t nanoseconds);

/* ---- Faults ----------------------------------------------------------------------------------------------------- */

/* The nth call from now of a D2XX function, and the ones after it up to `times` in all, do nothing and return the status.
   The name is the table's: "Write", "OpenEx", ... Returns -1 for an unknown name, nth 0 or times 0. */
QTXSIM_API int32_t QTXSim_FailCall(const char *function, uint32_t nth, uint32_t times, uint32_t status);

/* The device is unplugged just before the nth call from now of any D2XX function, on whatever handle. */
QTXSIM_API int32_t QTXSim_UnplugAtCall(int32_t device, uint32_t nth);

/* The nth Write from now to the device takes at most `accepted` bytes (0 too) and returns status 0. */
QTXSIM_API int32_t QTXSim_ShortWrite(int32_t device, uint32_t nth, uint32_t accepted);

/* Of the answer bytes that channel A of the bridge produces from now on, also to commands that it holds: `after` get through, then `count` are lost. */
QTXSIM_API int32_t QTXSim_LoseAnswer(int32_t device, uint32_t after, uint32_t count);

/* `after` answer bytes get through, then the bits of `mask` are inverted in one. */
QTXSIM_API int32_t QTXSim_CorruptAnswer(int32_t device, uint32_t after, uint8_t mask);

/* Bytes that nobody asked for appear in the host's receive queue at once, or when the device is opened next. */
QTXSIM_API int32_t QTXSim_InsertAnswer(int32_t device, const uint8_t *bytes, uint32_t count);

/* The nth erase (program: page or one-time-programmable area) from now, and the ones after it up to `times` in all,
   change nothing and end with the error bit set. */
QTXSIM_API int32_t QTXSim_FlashFailErase(int32_t device, uint32_t nth, uint32_t times);
QTXSIM_API int32_t QTXSim_FlashFailProgram(int32_t device, uint32_t nth, uint32_t times);

/* While on, an erase or program that starts never ends. Switching it off lets it end. */
QTXSIM_API int32_t QTXSim_FlashStayBusy(int32_t device, int32_t on);

/* Takes the flash off the board (0) or puts it back (1), content kept. */
QTXSIM_API int32_t QTXSim_FlashPresent(int32_t device, int32_t present);

/* Bits of `mask` in a chip register keep the bits of `value`, whatever is written. */
QTXSIM_API int32_t QTXSim_ChipStickBits(int32_t device, uint8_t address, uint64_t mask, uint64_t value);

/* Forgets every fault that has been scheduled, on the bench and on the flashes; a busy flash ends, a missing one comes
   back. Stuck chip bits stay. */
QTXSIM_API void QTXSim_ClearFaults(void);

/* ---- Pins ------------------------------------------------------------------------------------------------------- */

/* Pins 0 to 15 of channel A as they are on the wire. An undriven pin floats high, except the board's power pin 5 (low)
   and the data line, pin 2. The level is 0 or 1; -1 on a bad device or pin. */
QTXSIM_API int32_t QTXSim_PinLevel(int32_t device, int32_t pin);
QTXSIM_API int32_t QTXSim_PinIsOutput(int32_t device, int32_t pin);

/* Drives an input pin from outside: 0, 1, or -1 to let go of it. An output of the bridge wins. Pin 5 is also the one that
   the bridge's waiting commands look at. */
QTXSIM_API int32_t QTXSim_DrivePin(int32_t device, int32_t pin, int32_t level);

/* What the data line reads while nothing drives it (no device selected, no power, no board): 0, the default, or 1. */
QTXSIM_API int32_t QTXSim_SetIdleLevel(int32_t device, int32_t level);

/* ---- Flash, one-time-programmable area, chip -------------------------------------------------------------------- */

/* Bytes. */
#define QTXSIM_FLASH_SIZE 16777216
#define QTXSIM_OTP_SIZE 256

/* Read or replace the content directly, without the bus and its rules. */
QTXSIM_API int32_t QTXSim_FlashRead(int32_t device, uint32_t address, uint8_t *bytes, uint32_t count);
QTXSIM_API int32_t QTXSim_FlashWrite(int32_t device, uint32_t address, const uint8_t *bytes, uint32_t count);
QTXSIM_API int32_t QTXSim_OtpRead(int32_t device, uint32_t offset, uint8_t *bytes, uint32_t count);
QTXSIM_API int32_t QTXSim_OtpWrite(int32_t device, uint32_t offset, const uint8_t *bytes, uint32_t count);

/* A chip's registers as they stand; setting one goes past what is read-only. */
QTXSIM_API int32_t QTXSim_ChipRegister(int32_t device, uint8_t address, uint64_t *value);
QTXSIM_API int32_t QTXSim_SetChipRegister(int32_t device, uint8_t address, uint64_t value);
QTXSIM_API int32_t QTXSim_SetChipId(int32_t device, uint16_t id);

/* ---- Scene ------------------------------------------------------------------------------------------------------ */

enum { QTXSIM_STILL = 0, QTXSIM_SPEED = 1, QTXSIM_BREATHING = 2 };

/* Something that reflects the pulse. */
typedef struct QTXSim_Reflector {
  double range;     /* metres, when the scene is set */
  double strength;  /* amplitude of the echo at one metre, in codes of the threshold DAC; it falls with the range squared */
  int32_t motion;   /* QTXSIM_STILL, ... */
  double speed;     /* QTXSIM_SPEED: metres a second, away from the radar */
  double amplitude; /* QTXSIM_BREATHING: metres either way */
  double rate;      /* QTXSIM_BREATHING: hertz */
} QTXSim_Reflector;

/* What the radar looks at from now on, in mid-sweep too. direct_coupling: amplitude of the pulse that leaks from antenna to
   antenna, at zero range; noise: standard deviation; both in codes of the threshold DAC, whose middle (4096) is the level
   without any signal. Motions begin anew and follow the bench's clock. */
QTXSIM_API int32_t QTXSim_SetScene(int32_t device, const QTXSim_Reflector *reflectors, uint32_t count,
                                   double direct_coupling, double noise);

/* The same from a TOML file:
     noise = 40.0
     direct_coupling = 500.0
     [[reflector]]
     range = 0.8
     strength = 200.0
     motion = "breathing"    # with amplitude and rate; or "speed" with speed; or "still", the default
     amplitude = 0.004
     rate = 0.25
   On failure the scene stays and `error`, unless null, gets what is wrong, cut to `size` with its terminator. */
QTXSIM_API int32_t QTXSim_LoadScene(int32_t device, const char *path, char *error, uint32_t size);

/* ---- What a chip really is -------------------------------------------------------------------------------------- */

/* Every specimen is a little off in its own way, which follows from the serial number. */
enum { QTXSIM_COARSE = 0, QTXSIM_MEDIUM = 1, QTXSIM_FINE = 2 };

/* The delay in seconds of one element of the sampler chain: 0 to 62 coarse and medium, 0 to 63 fine. */
QTXSIM_API int32_t QTXSim_TrueDelayElement(int32_t device, int32_t grain, uint32_t element, double *seconds);
QTXSIM_API int32_t QTXSim_TrueSamplesPerSecond(int32_t device, double *rate);

/* With the registers as they stand: when the first sampler looks, in seconds after the pulse, and the mean level at each
   of the first `count` samplers in codes of the threshold DAC. */
QTXSIM_API int32_t QTXSim_TrueWindowStart(int32_t device, double *seconds);
QTXSIM_API int32_t QTXSim_TrueLevels(int32_t device, double *levels, uint32_t count);

/* The clock that the board feeds the chip, in hertz: 100000000 unless set; 0 stops it. */
QTXSIM_API int32_t QTXSim_SetReferenceClock(int32_t device, double hertz);

/* ---- Statistics ------------------------------------------------------------------------------------------------- */

/* What went over the USB. */
typedef struct QTXSim_Statistics {
  uint64_t calls;             /* of all D2XX functions */
  uint64_t out_transfers;     /* USB transfers to the bridge */
  uint64_t in_transfers;      /* and from it; only those that carry data count */
  uint64_t control_transfers; /* reset, latency timer, bit mode */
  uint64_t bytes_out;         /* data */
  uint64_t bytes_in;          /* data, without the modem-status bytes */
  uint64_t nanoseconds;       /* on the host's clock */
  uint64_t spi_nanoseconds;   /* that SPI clocks ran, on all channels; may overlap with transfers and with each other */
} QTXSim_Statistics;

/* What happened since the last QTXSim_ResetStatistics, over all devices. */
QTXSIM_API int32_t QTXSim_GetStatistics(QTXSim_Statistics *statistics);
QTXSIM_API void QTXSim_ResetStatistics(void);

/* Calls of one D2XX function since then; 0 for an unknown name. */
QTXSIM_API uint64_t QTXSim_Calls(const char *function);

/* ---- Record of what went over the wire -------------------------------------------------------------------------- */

/* Kinds of events, and their lines in QTXSim_RecordText (bytes as "%02X", separated by blanks):
 *   CALL   "OpenEx FT0001AB 1", "SetBitMode 0 2", "Write 80 FE 0B", "Read 2", ...; a failed call ends in " = <status>",
 *          a Write that took less than it was given in " took <count>"
 *   POLL   "GetQueueStatus"
 *   PIN    "Pin 5 out 1" or "Pin 5 in 0": direction and level on the wire, when the direction changes or an output changes
 *          its level. Levels of pins 0 to 4 (SPI) are left out
 *   SPI    "SPI 3 > 47 02 < 00 10": what was clocked while one chip select (pin 3 or 4) was low; "SPI -" with none, "SPI 34"
 *          with both. After ">" what write commands sent, after "<" what read commands got, in the order of the wire's bits;
 *          a broken last byte is filled up with 0 and followed by "/<bits>"
 *   CLOCK  "Clock 15000000": SPI clock in Hz, when a command sets it
 *   ODD    "BadCommand AB", "Loopback 01"
 */
#define QTXSIM_EVENT_CALL 1u
#define QTXSIM_EVENT_POLL 2u
#define QTXSIM_EVENT_PIN 4u
#define QTXSIM_EVENT_SPI 8u
#define QTXSIM_EVENT_CLOCK 16u
#define QTXSIM_EVENT_ODD 32u
#define QTXSIM_EVENT_ALL 63u

/* One event. */
typedef struct QTXSim_Event {
  uint32_t kind;        /* QTXSIM_EVENT_... */
  int32_t device;       /* -1: none in particular */
  uint64_t nanoseconds; /* when it began; an SPI frame: when it ended. Events are in this order */
  uint32_t status;      /* CALL, POLL: what the call returned */
  uint32_t value;       /* SPI: bit mask of the chip-select pins that were low; PIN: the pin; CLOCK: Hz;
                           CALL of Write: bytes taken */
  int32_t output;       /* PIN: 1 output, 0 input */
  int32_t level;        /* PIN */
  const uint8_t *out;   /* SPI: bytes written; CALL of Write: bytes given. Null when out_bits is 0 */
  const uint8_t *in;    /* SPI: bytes read. Null when in_bits is 0 */
  uint32_t out_bits;    /* in out */
  uint32_t in_bits;     /* in in */
} QTXSim_Event;

/* Chooses the kinds that are recorded from now on. After a reset: all but QTXSIM_EVENT_POLL. 0 records nothing, which is
   the right choice for measuring speed. Past 64 MiB of recorded bytes the oldest events go. */
QTXSIM_API void QTXSim_SetRecording(uint32_t kinds);
QTXSIM_API void QTXSim_ClearRecord(void);
QTXSIM_API uint32_t QTXSim_RecordCount(void);

/* Its pointers stay valid until the record is cleared or something is recorded. Returns -1 past the end. */
QTXSIM_API int32_t QTXSim_RecordEvent(uint32_t index, QTXSim_Event *event);

/* The events of these kinds, each a line that ends in '\n'. The text belongs to the simulator and stays valid until the
   next call of this function in the process. */
QTXSIM_API const char *QTXSim_RecordText(uint32_t kinds);

#ifdef __cplusplus
}
#endif

#endif
