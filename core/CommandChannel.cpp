#include "core/CommandChannel.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "core/CommandHandler.h"
#include "core/JSONLineWriter.h"
#include "core/Text.h"
#include "platform/MainQueue.h"

namespace palaver {

namespace {

// Sizes in bytes. A host that is far ahead gets larger blocks, which take fewer reads and wake-ups.
constexpr std::size_t usualBlockSize = std::size_t{256} << 10;
constexpr std::size_t burstBlockSize = std::size_t{1} << 20;
constexpr std::size_t burstRead = std::size_t{128} << 10;    // shows that the host is far ahead
constexpr std::size_t smallestRead = std::size_t{64} << 10;  // minimum free bytes worth a read
constexpr const char* lineDoesNotFit = "Invalid JSON command: the line does not fit into memory";
constexpr std::size_t spareBlocks = 4;  // blocks kept for reuse

}  // namespace

// Holds `size` bytes of input plus the decoder's padding.
class CommandChannel::Block {
 public:
  explicit Block(std::size_t size)
      : bytes_(std::make_unique_for_overwrite<char[]>(size + decodingPadding)), size_(size) {}

  char* bytes() { return bytes_.get(); }
  std::size_t size() const { return size_; }

 private:
  std::unique_ptr<char[]> bytes_;
  std::size_t size_;
};

// Keeps a few blocks of one size for reuse, so that a steady audio stream allocates no memory. All other
// blocks are freed. Any thread.
class CommandChannel::BlockPool : public std::enable_shared_from_this<BlockPool> {
 public:
  // Sets the size of the blocks to keep, and frees those kept until now.
  void keep(std::size_t size) {
    std::vector<std::unique_ptr<Block>> freed;
    const std::lock_guard guard(lock_);
    size_ = size;
    std::swap(freed, spares_);
  }

  std::shared_ptr<Block> take(std::size_t size) {
    auto block = takeSpare(size);
    if (!block) block = std::make_unique<Block>(size);
    return {block.release(),
            [pool = shared_from_this()](Block* done) { pool->giveBack(std::unique_ptr<Block>(done)); }};
  }

 private:
  std::unique_ptr<Block> takeSpare(std::size_t size) {
    const std::lock_guard guard(lock_);
    if (size != size_ || spares_.empty()) return nullptr;
    auto block = std::move(spares_.back());
    spares_.pop_back();
    return block;
  }
  void giveBack(std::unique_ptr<Block> block) {
    const std::lock_guard guard(lock_);
    if (block->size() == size_ && spares_.size() < spareBlocks) spares_.push_back(std::move(block));
  }

  std::mutex lock_;
  std::size_t size_ = usualBlockSize;
  std::vector<std::unique_ptr<Block>> spares_;
};

CommandChannel::CommandChannel(MainQueue& mainQueue, JSONLineWriter& writer, CommandHandler& handler,
                               std::size_t longestLine)
    : mainQueue_(mainQueue),
      writer_(writer),
      handler_(handler),
      longestLine_(longestLine),
      blockSize_(usualBlockSize),
      pool_(std::make_shared<BlockPool>()) {}

CommandChannel::~CommandChannel() = default;

std::span<char> CommandChannel::prepare() {
  const std::size_t unfinished = filled_ - lineStart_;
  // A block that grew for a long line is released with that line, regardless of the room it has left.
  const bool outgrown = block_ && block_->size() > blockSize_ && unfinished < blockSize_ / 2;
  if (!block_ || outgrown || block_->size() - filled_ < smallestRead) {
    try {
      replaceBlock(unfinished);
    } catch (const std::bad_alloc&) {
      if (!block_ || lineStart_ == block_->size()) handler_.fail(std::bad_alloc());
      if (filled_ == block_->size()) dropLineThatDoesNotFit();
    }
  }
  return {block_->bytes() + filled_, block_->size() - filled_};
}

// Makes room for input: the bytes of the current line belong to no command, so they can be overwritten.
void CommandChannel::dropLineThatDoesNotFit() {
  reportError(lineDoesNotFit);
  handOverErrors();
  skipping_ = true;
  filled_ = lineStart_;
}

void CommandChannel::replaceBlock(std::size_t unfinished) {
  setBlockSize(std::exchange(hadBurst_, false) ? burstBlockSize : usualBlockSize);
  std::shared_ptr<Block> next;
  try {
    next = takeBlock(unfinished);
  } catch (const std::bad_alloc&) {
    setBlockSize(usualBlockSize);
    next = takeBlock(unfinished);
  }
  if (unfinished > 0) std::memcpy(next->bytes(), block_->bytes() + lineStart_, unfinished);
  block_ = std::move(next);
  lineStart_ = 0;
  filled_ = unfinished;
}

void CommandChannel::setBlockSize(std::size_t size) {
  if (std::exchange(blockSize_, size) != size) pool_->keep(size);
}

// A line longer than half a block moves to a larger block, so it is copied only a few times.
std::shared_ptr<CommandChannel::Block> CommandChannel::takeBlock(std::size_t unfinished) {
  return pool_->take(unfinished < blockSize_ / 2 ? blockSize_ : unfinished * 2 + smallestRead);
}

void CommandChannel::received(std::size_t count) {
  hadBurst_ = hadBurst_ || count >= burstRead;
  try {
    splitLines(count);
  } catch (const std::exception& failure) {
    handler_.fail(failure);
  }
}

void CommandChannel::splitLines(std::size_t count) {
  std::size_t searched = filled_;  // the bytes of the current line before it hold no line feed
  filled_ += count;
  for (;;) {
    while (searched == lineStart_ && decodePlainLine()) searched = lineStart_;
    const void* const lineFeed = std::memchr(block_->bytes() + searched, '\n', filled_ - searched);
    if (!lineFeed) break;
    const auto end = static_cast<std::size_t>(static_cast<const char*>(lineFeed) - block_->bytes());
    endLine(end);
    searched = end + 1;
  }
  if (!skipping_ && !isShutDown_ && filled_ - lineStart_ > longestLine_) {
    reportTooLongLine();
    skipping_ = true;
  }
  if (skipping_ || isShutDown_) filled_ = lineStart_;  // what is dropped needs no room
  handOverCommands();
  handOverErrors();
  if (isShutDown_) writer_.limitStalls();
}

// Decodes the current line without a search for its end, which costs a pass over the line. Returns false if
// the line is not plain, whole and allowed. In that case nothing has changed.
bool CommandChannel::decodePlainLine() {
  if (skipping_ || isShutDown_ || lineStart_ == filled_) return false;
  char* const line = block_->bytes() + lineStart_;
  std::optional<PlainCommand> plain;
  try {
    plain = decodePlainCommand(line, filled_ - lineStart_);
  } catch (const std::bad_alloc&) {
    return false;  // decodeLine() reports it
  }
  if (!plain || line[plain->length] != '\n' || plain->length > longestLine_) return false;
  lineStart_ += plain->length + 1;
  keep(std::move(plain->command), plain->length);
  return true;
}

void CommandChannel::ended() {
  if (filled_ > lineStart_) endLine(filled_);  // the last line may lack its line feed
  handOverCommands();
  handOverErrors();
  block_.reset();
  mainQueue_.async([&handler = handler_] { handler.shutDown(); });
  writer_.limitStalls();
}

// Ends the line that starts at lineStart_ and ends at `end`. Decodes it and moves lineStart_ past
// its line feed.
void CommandChannel::endLine(std::size_t end) {
  char* const line = block_->bytes() + lineStart_;
  const std::size_t length = end - lineStart_;
  lineStart_ = std::min(end + 1, filled_);
  if (std::exchange(skipping_, false) || isShutDown_) return;
  if (length > longestLine_) return reportTooLongLine();
  decodeLine(line, length);
}

void CommandChannel::reportTooLongLine() {
  reportError("Invalid JSON command: the line is longer than " + std::to_string(longestLine_) + " bytes");
}

void CommandChannel::decodeLine(char* line, std::size_t length) {
  // The trim is only a test for blank lines. The line itself is decoded untrimmed. Almost every line begins
  // with a brace. An empty line has its line feed as the first byte.
  if (line[0] != '{' && trimWhitespaceAndNewlines({line, length}).empty()) return;
  try {
    keep(decodeHelperCommand(line, length), length);
  } catch (const DecodingError& error) {
    reportError(std::string("Invalid JSON command: ") + error.what());
  } catch (const std::bad_alloc&) {
    reportError(lineDoesNotFit);
  }
}

// The lines of a read are about equally long, so one list usually takes all. Without memory for it each
// command is handed over by itself.
void CommandChannel::reserveCommands(std::size_t count) {
  try {
    commands_.reserve(count);
  } catch (const std::bad_alloc&) {
  }
}

void CommandChannel::keep(HelperCommand command, std::size_t lineLength) {
  try {
    handOverErrors();
    if (commands_.size() == commands_.capacity()) handOverCommands();
    if (commands_.empty()) reserveCommands(1 + (filled_ - lineStart_) / (lineLength + 1));
    const bool isLast = command.type == "shutdown";
    commands_.push_back(std::move(command));
    isShutDown_ = isLast;
  } catch (const std::bad_alloc&) {
    reportError(lineDoesNotFit);
  }
}

// Commands before the line are queued first, so that none waits for a host that does not read. Once an error
// is queued, later ones are too, which keeps them in order.
void CommandChannel::reportError(const std::string& message) {
  handOverCommands();
  if (errors_.empty() && queuedErrorJobs_ == 0 && writer_.tryError(message)) return;
  if (errors_.empty() || errors_.back().first != message) errors_.emplace_back(message, 0);
  ++errors_.back().second;
}

// Queues one job for all kept commands. It shares the block that they point into.
void CommandChannel::handOverCommands() {
  if (commands_.empty()) return;
  mainQueue_.async([&handler = handler_, block = block_, batch = std::exchange(commands_, {})] {
    for (const auto& command : batch) handler.handle(command);
  });
}

void CommandChannel::handOverErrors() {
  if (errors_.empty()) return;
  ++queuedErrorJobs_;
  mainQueue_.async([this, batch = std::exchange(errors_, {})] {
    for (const auto& [message, count] : batch)
      for (std::size_t i = 0; i < count; ++i) writer_.error(message);
    --queuedErrorJobs_;
  });
}

}  // namespace palaver
