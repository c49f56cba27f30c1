// Reads stdin, splits it into lines, decodes each line into a HelperCommand and queues it on the main thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/HelperCommand.h"
#include "platform/StandardStreams.h"

namespace palaver {

class CommandHandler;
class JSONLineWriter;
class MainQueue;

// Runs on the reader thread. Only the queued batches run on the main thread. Never waits for a command to be
// handled or for the host to read, so the host's pipe keeps draining. An error that cannot be written
// immediately is queued on the main thread, in the order of the lines.
//
// Bytes are read into blocks and commands are views into them. A block is destroyed after its last command
// has been handled. Lines are not copied, except when they cross the end of a block.
//
// Lines longer than `longestLine` bytes are reported as an error and skipped. This bounds memory when a host
// never sends a newline.
class CommandChannel final : public InputHandler {
 public:
  static constexpr std::size_t usualLongestLine = std::size_t{256} << 20;  // over an hour of audio

  CommandChannel(MainQueue& mainQueue, JSONLineWriter& writer, CommandHandler& handler,
                 std::size_t longestLine = usualLongestLine);
  ~CommandChannel() override;

  std::span<char> prepare() override;
  void received(std::size_t count) override;
  void ended() override;

 private:
  class Block;
  class BlockPool;
  using Commands = std::vector<HelperCommand>;
  using Errors = std::vector<std::pair<std::string, std::size_t>>;  // message, times in a row

  void dropLineThatDoesNotFit();
  void replaceBlock(std::size_t unfinished);
  void setBlockSize(std::size_t size);
  std::shared_ptr<Block> takeBlock(std::size_t unfinished);
  void splitLines(std::size_t count);
  bool decodePlainLine();
  void endLine(std::size_t end);
  void reportTooLongLine();
  void decodeLine(char* line, std::size_t length);
  void keep(HelperCommand command, std::size_t lineLength);
  void reserveCommands(std::size_t count);
  void reportError(const std::string& message);
  void handOverCommands();
  void handOverErrors();

  MainQueue& mainQueue_;
  JSONLineWriter& writer_;
  CommandHandler& handler_;
  const std::size_t longestLine_;
  std::size_t blockSize_;  // of a block for usual lines, bytes
  bool hadBurst_ = false;  // a long read went into block_
  std::shared_ptr<BlockPool> pool_;
  std::shared_ptr<Block> block_;
  std::size_t lineStart_ = 0;  // start of the current line in block_
  std::size_t filled_ = 0;     // bytes of block_ that hold input
  bool skipping_ = false;      // the current line is too long and its rest is dropped
  bool isShutDown_ = false;    // "shutdown" was decoded; all input after it is dropped

  // Not yet queued; at most one of them holds anything.
  Commands commands_;
  Errors errors_;
  std::atomic<int> queuedErrorJobs_{0};
};

}  // namespace palaver
