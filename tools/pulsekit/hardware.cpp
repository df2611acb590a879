// flash, board, register, pin, spi: past the settings, straight to the hardware.
#include <algorithm>
#include <memory>

#include "commands.h"
#include "files.h"
#include "number.h"
#include "output.h"

namespace tool {

namespace {

constexpr uint64_t kFlashEnd = 0x1000000;  // what 24 address bits reach
constexpr size_t kBlock = 4096;            // what is erased together
constexpr size_t kPart = 65536;            // what is read together: the most that the bridge gives at once
constexpr size_t kBoardName = 31, kBoardId = 32, kBoardInformation = 64;

uint8_t *bytesOf(std::string &text) { return reinterpret_cast<uint8_t *>(text.data()); }
const uint8_t *bytesOf(const std::string &text) { return reinterpret_cast<const uint8_t *>(text.data()); }

std::string hex(uint64_t value, size_t digits) {
  std::string text;
  for (; digits > 0 || value > 0; value >>= 4) {
    text.insert(text.begin(), "0123456789abcdef"[value & 15]);
    digits -= digits > 0;
  }
  return text;
}

std::string hexBytes(std::string_view bytes) {
  Strings words;
  for (const char byte : bytes) words.push_back(hex(static_cast<unsigned char>(byte), 2));
  return join(words, " ");
}

std::string dumpLine(uint64_t address, std::string_view bytes) {
  std::string text(bytes);
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < 0x20 || c > 0x7e; }, '.');
  std::string numbers = hexBytes(bytes);
  numbers.resize(48, ' ');
  return cat(hex(address, 6), "  ", numbers, ' ', text, '\n');
}

std::string readPart(const Radar &radar, uint64_t address, uint64_t length) {
  std::string part(length, '\0');
  radar.check(
      QTX_ModuleReadFlashMemory(radar, static_cast<uint32_t>(address), bytesOf(part), static_cast<int32_t>(length)));
  return part;
}

std::string readBlock(const Radar &radar, uint64_t address) { return readPart(radar, address, kBlock); }

std::string readFlash(const Radar &radar, uint64_t address, uint64_t length) {
  const uint64_t first = address / kBlock * kBlock, end = address + length;
  Progress progress("reading", (end - first + kPart - 1) / kPart);
  std::string content;
  for (uint64_t part = first; part < end; part += kPart) {
    content += readPart(radar, part, std::min<uint64_t>(kPart, end - part));
    progress.reached((part - first) / kPart + 1);
    if (interrupted() && part + kPart < end) throw Failure("interrupted", "nothing was written; start it again");
  }
  return content.substr(address - first, length);
}

// What the block held before goes back where the new content does not stay.
void writeBlock(const Radar &radar, uint64_t address, const std::string &old_content, const std::string &content) {
  const Uninterrupted whole_block;
  const auto write = [&](const std::string &bytes) {
    return QTX_ModuleWriteFlashMemory(radar, static_cast<uint32_t>(address), bytesOf(bytes), kBlock);
  };
  const int32_t code = write(content);
  const std::string cause = code ? failure(radar, code).what() : "it reads back differently";
  if (code == 0 && readBlock(radar, address) == content) return;
  const bool restored = write(old_content) == 0 && readBlock(radar, address) == old_content;
  throw Failure(cat("flash block 0x", hex(address, 6), ": ", cause),
                restored ? "the block holds what it held before; blocks before it are written"
                         : "the block's content is lost: write it again, or replace the board's flash");
}

size_t writeFlash(const Radar &radar, uint64_t address, const std::string &content) {
  const uint64_t first = address / kBlock * kBlock, end = address + content.size();
  Progress progress("writing", (end - first + kBlock - 1) / kBlock);
  size_t written = 0;
  for (uint64_t block = first; block < end; block += kBlock) {
    const std::string old_content = readBlock(radar, block);
    const uint64_t from = std::max(block, address), to = std::min(block + kBlock, end);
    std::string wanted = old_content;
    wanted.replace(from - block, to - from, content, from - address, to - from);
    if (wanted != old_content) {
      writeBlock(radar, block, old_content, wanted);
      ++written;
    }
    progress.reached((block - first) / kBlock + 1);
    if (interrupted() && to < end)
      throw Failure(cat("interrupted before 0x", hex(to, 6)), "start it again to write the rest");
  }
  return written;
}

uint64_t flashLength(uint64_t address, uint64_t length) {
  if (length == 0 || address + length > kFlashEnd) {
    throw Usage(cat("0x", hex(address, 6), " and ", length, " bytes: not within the flash"),
                "the flash has addresses up to 0xffffff");
  }
  return length;
}

struct FlashRequest {
  std::string address, length, file, bytes;
  uint64_t at() const { return parseWhole(address, "", "ADDRESS", 0, kFlashEnd - 1); }
};

void flashRead(const Options &options, const FlashRequest &request) {
  const uint64_t at = request.at();
  const uint64_t length = flashLength(at, parseWhole(request.length, "bytes", "LENGTH", 1, kFlashEnd));
  const Radar radar(options, Need::Board);
  if (!request.file.empty()) {
    NewFile file(request.file);
    file.write(readFlash(radar, at, length));
    file.commit();
    if (request.file != "-") note(cat(request.file, ": ", counted(length, "byte"), " from 0x", hex(at, 6)));
    return;
  }
  const std::string content = readFlash(radar, at, length);
  if (options.json) return printJson({{"address", at}, {"bytes", hexBytes(content)}});
  std::string dump;
  for (size_t i = 0; i < content.size(); i += 16) dump += dumpLine(at + i, std::string_view(content).substr(i, 16));
  print(dump);
}

void flashWrite(const Options &options, const FlashRequest &request) {
  const uint64_t at = request.at();
  if (request.file.empty() == request.bytes.empty()) {
    throw Usage("flash write takes either FILE or --bytes", "such as pulsekit flash write 0x10000 FILE");
  }
  const std::string content = request.file.empty() ? parseBytes(request.bytes, "--bytes") : readFile(request.file);
  flashLength(at, content.size());
  const Radar radar(options, Need::Board);
  const size_t written = writeFlash(radar, at, content);
  if (options.json)
    return printJson({{"address", at}, {"bytes", content.size()}, {"blocks_written", written}, {"verified", true}});
  printLine(cat(counted(content.size(), "byte"), " at 0x", hex(at, 6), ", ", counted(written, "block"),
                " written, verified"));
}

void flashErase(const Options &options, const FlashRequest &request) {
  const uint64_t at = request.at();
  const uint64_t length = flashLength(at, parseWhole(request.length, "bytes", "LENGTH", 1, kFlashEnd));
  if (at % kBlock != 0 || length % kBlock != 0) {
    throw Usage("blocks of 4096 bytes are erased as a whole", "give ADDRESS and LENGTH as multiples of 0x1000");
  }
  const Radar radar(options, Need::Board);
  const size_t written = writeFlash(radar, at, std::string(length, '\xff'));
  if (options.json)
    return printJson({{"address", at}, {"bytes", length}, {"blocks_written", written}, {"verified", true}});
  printLine(cat(counted(length, "byte"), " from 0x", hex(at, 6), " erased, verified"));
}

std::string boardText(std::string_view bytes) {
  return printable(trim(bytes.substr(0, bytes.find_first_of(std::string_view("\0\xff", 2)))));
}

std::string boardInformation(const Radar &radar) {
  std::string information(kBoardInformation, '\0');
  radar.check(QTX_ModuleReadBoardInfo(radar, bytesOf(information), kBoardInformation));
  return information;
}

void boardShow(const Options &options) {
  const Radar radar(options, Need::Bridge);
  const std::string information = boardInformation(radar);
  const std::string name = boardText(std::string_view(information).substr(0, kBoardName));
  const std::string id = boardText(std::string_view(information).substr(kBoardName, kBoardId));
  if (options.json) return printJson({{"name", name}, {"id", id}, {"bytes", hexBytes(information)}});
  printLine(cat("name  ", name, "\nid    ", id));
}

// Bits of the one-time-programmable area go from 1 to 0 and never back.
void boardProgram(const Options &options, const std::string &name, const std::string &id, bool sure) {
  if (name.empty() || name.size() > kBoardName - 1 || id.size() > kBoardId) {
    throw Usage("a board's name has 1 to 30 characters, its id up to 32", "shorten --name or --id");
  }
  const Radar radar(options, Need::Bridge);
  const Strings types = supportedBoards(radar.handle());
  if (std::find(types.begin(), types.end(), name) == types.end()) {
    throw Usage(cat('"', printable(name), "\" is no type of board"), cat("take one of ", join(types, ", ")));
  }
  std::string wanted = name;
  wanted.resize(kBoardName, '\0');
  if (!id.empty()) {
    wanted += id;
    wanted.resize(kBoardName + kBoardId, '\0');
  }
  std::string old_content = boardInformation(radar);
  wanted += old_content.substr(wanted.size());
  for (size_t i = 0; i < wanted.size(); ++i) {
    if ((wanted[i] & ~old_content[i]) == 0) continue;
    throw Failure(cat("this board was programmed before: ", boardText(old_content)),
                  "its information can't be changed any more; pulsekit board show tells all of it");
  }
  const bool there = wanted == old_content;
  if (!there && !sure) {
    throw Usage(cat("name \"", name, "\", id \"", id, "\": programming can't be undone"), "add --yes if this is right");
  }
  if (!there) {
    const Uninterrupted whole_area;
    radar.check(QTX_ModuleProgramBoardInfo(radar, bytesOf(wanted), kBoardInformation));
  }
  if (boardInformation(radar) != wanted) {
    throw Failure("the board information reads back differently", "see pulsekit board show for what it holds now");
  }
  if (options.json) return printJson({{"name", name}, {"id", id}, {"verified", true}});
  printLine(cat("name \"", name, "\", id \"", id, there ? "\" was there already" : "\" programmed, verified"));
}

struct RegisterRequest {
  std::string address, value, bytes = "1";
};

void registerAccess(const Options &options, const RegisterRequest &request, bool write) {
  const auto address = static_cast<uint8_t>(parseWhole(request.address, "", "ADDRESS", 0, 127));
  const auto bytes = static_cast<uint32_t>(parseWhole(request.bytes, "bytes", "--bytes", 1, 8));
  const uint64_t most = bytes == 8 ? ~uint64_t{0} : (uint64_t{1} << (8 * bytes)) - 1;
  const uint64_t wanted = write ? parseWhole(request.value, "", "VALUE", 0, most) : 0;
  const Radar radar(options);
  if (write) radar.check(QTX_RegisterWrite(radar, address, static_cast<int32_t>(bytes), wanted));
  uint64_t value = 0;
  radar.check(QTX_RegisterRead(radar, address, bytes, &value));
  if (write && value != wanted) {
    throw Failure(
        cat("register 0x", hex(address, 2), " holds 0x", hex(value, 2 * bytes), ", not 0x", hex(wanted, 2 * bytes)),
        "check --bytes: bits that the register does not have read as 0");
  }
  if (options.json) return printJson({{"address", address}, {"bytes", bytes}, {"value", value}});
  printLine(cat("0x", hex(value, 2 * bytes)));
}

void pin(const Options &options, const std::string &request) {
  const size_t equals = request.find('=');
  const auto number = static_cast<uint32_t>(parseWhole(request.substr(0, equals), "", "PIN", 0, 0xffffffff));
  const std::string action = equals == std::string::npos ? "" : request.substr(equals + 1);
  if (!action.empty() && action != "0" && action != "1" && action != "in") {
    throw Usage(cat("PIN \"", printable(request), "\": no level"), "write PIN, PIN=0, PIN=1 or PIN=in");
  }
  const Radar radar(options, Need::Bridge);
  if (!action.empty()) radar.check(QTX_IO_SetDirection(radar, number, action != "in", action == "1"));
  uint32_t level = 0;
  radar.check(QTX_IO_GetValue(radar, number, &level));
  if (options.json) return printJson({{"pin", number}, {"level", level}});
  printLine(cat(level));
}

void spi(const Options &options, const std::string &channel, const std::string &out, const std::string &count) {
  const auto number = static_cast<uint32_t>(parseWhole(channel, "", "CHANNEL", 0, 1));
  const std::string bytes = parseBytes(out, "BYTES");
  std::string answer(parseWhole(count, "bytes", "--read", 0, 65536), '\0');
  if (bytes.size() > 65536) throw Usage("BYTES: more than 65536", "send less at once");
  const Radar radar(options, Need::Bridge);
  radar.check(QTX_SPI_SendReceive(radar, number, bytesOf(bytes), static_cast<int32_t>(bytes.size()), bytesOf(answer),
                                  static_cast<uint32_t>(answer.size())));
  if (options.json) return printJson({{"sent", hexBytes(bytes)}, {"answer", hexBytes(answer)}});
  if (!answer.empty()) printLine(hexBytes(answer));
}

void addFlashCommands(const Command &program, const Options &options) {
  const Command flash = program.add("flash", "The board's flash memory");
  flash.needsCommand();
  const auto add = [&](const char *name, const char *help, auto run) {
    const Command command = flash.add(name, help);
    const auto request = std::make_shared<FlashRequest>();
    command.argument("ADDRESS", request->address, "Byte address, such as 0x10000").required();
    command.runs([&options, request, run] { run(options, *request); });
    return std::pair(command, request);
  };
  const auto [read, read_request] = add("read", "Print it, or keep it in a file", flashRead);
  read.argument("LENGTH", read_request->length, "Number of bytes").required();
  read.argument("-o,--output", read_request->file, "File for the bytes; - is standard output").takes("FILE");
  const auto [write, write_request] =
      add("write", "Write bytes; the rest of their blocks stays, all is read back", flashWrite);
  write.argument("FILE", write_request->file, "File with the bytes");
  write.argument("--bytes", write_request->bytes, "The bytes themselves, hexadecimal").takes("HEX");
  const auto [erase, erase_request] = add("erase", "Erase whole blocks", flashErase);
  erase.argument("LENGTH", erase_request->length, "Number of bytes, a multiple of 0x1000").required();
}

void addBoardCommands(const Command &program, const Options &options) {
  const Command board = program.add("board", "The board's own name and id");
  board.needsCommand();
  board.add("show", "Tell what is programmed").runs([&options] { boardShow(options); });
  const Command command = board.add("program", "Program a new board, once and for all");
  const auto name = std::make_shared<std::string>(), id = std::make_shared<std::string>();
  const auto sure = std::make_shared<bool>(false);
  command.argument("--name", *name, "Type of the board, such as QTX-K245").required().takes("NAME");
  command.argument("--id", *id, "Its own number").takes("ID");
  command.flag("--yes", *sure, "Really do it");
  command.runs([&options, name, id, sure] { boardProgram(options, *name, *id, *sure); });
}

void addRegisterCommands(const Command &program, const Options &options) {
  const Command group = program.add("register", "Registers of the chip, for a look: the next command sets them anew");
  group.needsCommand();
  for (const bool write : {false, true}) {
    const Command command = group.add(write ? "write" : "read", write ? "Write one and read it back" : "Read one");
    const auto request = std::make_shared<RegisterRequest>();
    command.argument("ADDRESS", request->address, "Address, 0 to 0x7f").required();
    if (write) command.argument("VALUE", request->value, "Value, such as 0x28").required();
    command.argument("--bytes", request->bytes, "Bytes of the register, 1 to 8").takes("COUNT").showsDefault();
    command.runs([&options, request, write] { registerAccess(options, *request, write); });
  }
}

}  // namespace

void addHardwareCommands(const Command &program, const Options &options) {
  addFlashCommands(program, options);
  addBoardCommands(program, options);
  addRegisterCommands(program, options);
  const Command pin_command = program.add("pin", "A pin of the bridge");
  const auto pin_request = std::make_shared<std::string>();
  pin_command.argument("PIN", *pin_request, "PIN reads it, PIN=0 and PIN=1 drive it, PIN=in lets go of it").required();
  pin_command.runs([&options, pin_request] { pin(options, *pin_request); });

  const Command spi_command = program.add("spi", "One transfer on the SPI bus");
  const auto channel = std::make_shared<std::string>(), bytes = std::make_shared<std::string>();
  const auto count = std::make_shared<std::string>("0");
  spi_command.argument("CHANNEL", *channel, "0 is the chip, 1 the flash").required();
  spi_command.argument("BYTES", *bytes, "What is sent, hexadecimal, such as 9f").required();
  spi_command.argument("--read", *count, "How many bytes are read then").takes("COUNT");
  spi_command.runs([&options, channel, bytes, count] { spi(options, *channel, *bytes, *count); });
}

}  // namespace tool
