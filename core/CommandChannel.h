// Standard input as commands: cuts the bytes into lines, decodes each, and queues them for the main thread.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "core/HelperCommand.h"
#include "platform/StandardStreams.h"

namespace palaver {

class CommandHandler;
class JSONLineWriter;
class MainQueue;

// Lives on the reader's thread; only the batches it hands over reach the main thread. Never waits for a
// command to be handled, so the host's pipe keeps draining however long a command takes.
//
// Bytes are read into blocks, and commands are views into them: a block lives until its last command has been
// handled. A line is never copied, except when it crosses the end of a block.
//
// A line that grows beyond `longestLine` (bytes) is reported and skipped to its end, so that a host that
// sends no line feeds costs its own words only and not the helper's memory.
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

  void endLine(std::size_t end, Commands& commands);
  void reportTooLongLine();
  void decodeLine(char* line, std::size_t length, Commands& commands);
  void handOver(Commands commands);

  MainQueue& mainQueue_;
  JSONLineWriter& writer_;
  CommandHandler& handler_;
  const std::size_t longestLine_;
  std::shared_ptr<BlockPool> pool_;
  std::shared_ptr<Block> block_;
  std::size_t lineStart_ = 0;  // where the line being read begins in block_
  std::size_t filled_ = 0;     // bytes of block_ that have been read
  bool skipping_ = false;      // the line being read was too long; what comes of it is dropped
};

}  // namespace palaver
