// Tests the Objective-C runtime with code that the compiler generates from ordinary ARC sources.
#import <Foundation/Foundation.h>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "apple-stand-ins/objc/Runtime.h"

namespace {

struct Tracker {
  Tracker() { ++alive; }
  ~Tracker() { --alive; }
  Tracker(const Tracker &) = delete;
  Tracker &operator=(const Tracker &) = delete;
  std::string text = "made";
  static inline std::atomic<int> alive = 0;
};

struct Three {
  double a, b, c;
};

std::size_t alive(Class of) { return palaver::objc::liveObjects((__bridge palaver::objc::Class *)of); }

}  // namespace

@interface RTAnimal : NSObject {
 @public
  Tracker tracker_;
  int legs_;
}
@property(nonatomic, strong) id friend_;
@property(nonatomic, weak) RTAnimal *shy;
@property(nonatomic, copy) NSString *name;
@property(atomic, strong) NSString *title;
@property(nonatomic) double weight;
+ (RTAnimal *)animal;
- (std::string)says;
- (Three)three:(double)factor plus:(int)much of:(long)a and:(long)b or:(long)c last:(long)d;
- (double)sumOf:(double)a
              b:(double)b
              c:(double)c
              d:(double)d
              e:(double)e
              f:(double)f
              g:(double)g
              h:(double)h
              i:(double)i;
@end

@interface RTDog : RTAnimal {
 @public
  Tracker collar_;
  int fleas_;
}
@end

@interface RTAnimal (Tricks)
- (std::string)rolls;
+ (int)tricks;
@end

@implementation RTAnimal
+ (RTAnimal *)animal {
  return [[self alloc] init];
}
- (instancetype)init {
  if ((self = [super init])) legs_ = 4;
  return self;
}
- (std::string)says {
  return "nothing";
}
- (Three)three:(double)factor plus:(int)much of:(long)a and:(long)b or:(long)c last:(long)d {
  return {factor * legs_, static_cast<double>(much), static_cast<double>(a + b + c + d)};
}
- (double)sumOf:(double)a
              b:(double)b
              c:(double)c
              d:(double)d
              e:(double)e
              f:(double)f
              g:(double)g
              h:(double)h
              i:(double)i {
  return a + b * 10 + c * 100 + d * 1e3 + e * 1e4 + f * 1e5 + g * 1e6 + h * 1e7 + i * 1e8;
}
@end

@implementation RTDog
- (std::string)says {
  return "woof after " + [super says];
}
@end

@implementation RTAnimal (Tricks)
- (std::string)rolls {
  return "rolled " + [self says];
}
+ (int)tricks {
  return 1;
}
@end

namespace {

class ObjectiveC : public testing::Test {
 protected:
  ~ObjectiveC() override {
    EXPECT_EQ(alive([RTAnimal class]), 0U);
    EXPECT_EQ(Tracker::alive, 0);
  }
};

TEST_F(ObjectiveC, MethodsAreFoundInClassSuperclassAndCategories) {
  @autoreleasepool {
    RTDog *const dog = [[RTDog alloc] init];
    EXPECT_EQ([dog says], "woof after nothing");
    EXPECT_EQ([dog rolls], "rolled woof after nothing");
    EXPECT_EQ([RTDog tricks], 1);
    EXPECT_TRUE([dog isKindOfClass:[RTAnimal class]]);
    EXPECT_FALSE([[RTAnimal animal] isKindOfClass:[RTDog class]]);
    EXPECT_TRUE([dog respondsToSelector:@selector(rolls)]);
    EXPECT_FALSE([dog respondsToSelector:@selector(addObject:)]);
  }
}

TEST_F(ObjectiveC, MessagesPassArgumentsAndResults) {
  RTDog *const dog = [[RTDog alloc] init];
  const Three three = [dog three:2.5 plus:7 of:1 and:20 or:300 last:4000];
  EXPECT_EQ(three.a, 10);
  EXPECT_EQ(three.b, 7);
  EXPECT_EQ(three.c, 4321);
  EXPECT_EQ([dog sumOf:1 b:2 c:3 d:4 e:5 f:6 g:7 h:8 i:9], 987654321.0);
}

TEST_F(ObjectiveC, MessageToNilReturnsZero) {
  RTAnimal *const nobody = nil;
  EXPECT_EQ(nobody.weight, 0);
  EXPECT_EQ(nobody.name, nil);
  EXPECT_EQ([nobody three:1 plus:1 of:1 and:1 or:1 last:1].c, 0);
  EXPECT_EQ([nobody hash], 0U);
}

TEST_F(ObjectiveC, SubclassVariablesFollowSuperclassVariables) {
  RTDog *const dog = [[RTDog alloc] init];
  dog->fleas_ = 1000;
  dog.weight = 12.5;
  EXPECT_EQ(Tracker::alive, 2);
  EXPECT_EQ(dog->tracker_.text + dog->collar_.text, "mademade");
  EXPECT_EQ(dog->legs_, 4);
  EXPECT_EQ(dog->fleas_, 1000);
  EXPECT_EQ(dog.weight, 12.5);
}

TEST_F(ObjectiveC, LastReleaseDestroysObject) {
  RTAnimal *one = [[RTAnimal alloc] init];
  RTAnimal *const other = [[RTAnimal alloc] init];
  other.friend_ = one;
  one = nil;
  EXPECT_EQ(alive([RTAnimal class]), 2U);
  other.friend_ = nil;
  EXPECT_EQ(alive([RTAnimal class]), 1U);
}

TEST_F(ObjectiveC, AutoreleasedObjectLivesUntilPoolEnds) {
  __weak RTAnimal *seen = nil;
  @autoreleasepool {
    @autoreleasepool {
      seen = [RTAnimal animal];
      EXPECT_EQ(alive([RTAnimal class]), 1U);
    }
    EXPECT_EQ(alive([RTAnimal class]), 0U);
    EXPECT_EQ(seen, nil);
  }
}

using ObjectiveCDeathTest = ObjectiveC;

TEST_F(ObjectiveCDeathTest, AutoreleaseWithoutPoolEndsProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH([RTAnimal animal], "class RTAnimal is autoreleased without a pool");
}

TEST_F(ObjectiveCDeathTest, UnknownMethodEndsProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH([(id)[[RTAnimal alloc] init] addObject:@"x"], "-\\[RTAnimal addObject:\\]: no such method");
}

TEST_F(ObjectiveC, WeakReferenceIsClearedOnDestruction) {
  @autoreleasepool {
    RTAnimal *const holder = [[RTAnimal alloc] init];
    @autoreleasepool {
      RTAnimal *const kept = [[RTAnimal alloc] init];
      holder.shy = kept;
      EXPECT_EQ(holder.shy, kept);
      __weak RTAnimal *copied = kept;
      __weak RTAnimal *again = copied;
      EXPECT_EQ(again, kept);
    }
    EXPECT_EQ(holder.shy, nil);
  }
}

TEST_F(ObjectiveC, CopyPropertyCopies) {
  @autoreleasepool {
    RTAnimal *const dog = [RTDog animal];
    dog.name = @"Rex";
    dog.title = [NSString stringWithUTF8String:"Sir"];
    EXPECT_STREQ(dog.name.UTF8String, "Rex");
    EXPECT_STREQ(dog.title.UTF8String, "Sir");
  }
}

TEST_F(ObjectiveC, BlockRetainsCapturesUntilDestroyed) {
  void (^block)() = nil;
  __block int calls = 0;
  {
    RTAnimal *const captured = [[RTAnimal alloc] init];
    const auto tracker = std::make_shared<Tracker>();
    block = ^{
      calls += captured->legs_ + static_cast<int>(tracker->text.size());
    };
  }
  EXPECT_EQ(alive([RTAnimal class]), 1U);
  block();
  EXPECT_EQ(calls, 8);
  void (^const shared)() = block;
  block = nil;
  EXPECT_EQ(alive([RTAnimal class]), 1U);
  shared();
  EXPECT_EQ(calls, 16);
}

int callTwice(int (^block)()) {
  int (^const kept)() = [block copy];
  return block() + kept();
}

TEST_F(ObjectiveC, StackBlockEndsWithItsFunction) {
  const auto tracker = std::make_shared<Tracker>();
  const std::weak_ptr<Tracker> watch = tracker;
  RTAnimal *const captured = [[RTAnimal alloc] init];
  {
    const int sum = callTwice(^{
      return captured->legs_ + static_cast<int>(tracker->text.size());
    });
    EXPECT_EQ(sum, 16);
  }
  EXPECT_EQ(watch.use_count(), 1);
}

TEST_F(ObjectiveC, BlockWithWeakReferenceRetainsNothing) {
  int (^block)() = nil;
  {
    RTAnimal *const captured = [[RTAnimal alloc] init];
    __weak RTAnimal *weak = captured;
    block = ^{
      RTAnimal *const strong = weak;
      return strong ? strong->legs_ : -1;
    };
    EXPECT_EQ(block(), 4);
  }
  EXPECT_EQ(block(), -1);
}

TEST_F(ObjectiveC, ExceptionIsCaughtByClass) {
  @autoreleasepool {
    std::string caught;
    bool cleaned = false;
    @try {
      RTAnimal *const local = [[RTAnimal alloc] init];
      (void)local;
      [[NSException exceptionWithName:@"Name" reason:@"Reason" userInfo:nil] raise];
    } @catch (NSException *exception) {
      caught = exception.reason.UTF8String;
    } @finally {
      cleaned = true;
    }
    EXPECT_EQ(caught, "Reason");
    EXPECT_TRUE(cleaned);
    EXPECT_EQ(alive([RTAnimal class]), 0U);
  }
  EXPECT_EQ(alive([NSException class]), 0U);
}

TEST_F(ObjectiveC, CppExceptionPassesObjectiveCHandlers) {
  std::string caught;
  try {
    RTAnimal *const local = [[RTAnimal alloc] init];
    (void)local;
    @try {
      throw std::runtime_error("of C++");
    } @catch (NSException *) {
      caught = "wrongly";
    }
  } catch (const std::exception &error) {
    caught = error.what();
  }
  EXPECT_EQ(caught, "of C++");
}

TEST_F(ObjectiveC, ReferenceCountIsThreadSafe) {
  constexpr int threads = 4;
  constexpr int rounds = 2000;
  std::vector<std::thread> running;
  @autoreleasepool {
    RTAnimal *const holder = [[RTAnimal alloc] init];
    RTAnimal *shared = [[RTAnimal alloc] init];
    holder.shy = shared;
    for (int i = 0; i < threads; ++i)
      running.emplace_back([holder, shared] {
        for (int round = 0; round < rounds; ++round) @autoreleasepool {
            RTAnimal *const seen = holder.shy;
            EXPECT_EQ(seen, shared);
            RTDog *const own = [[RTDog alloc] init];
            own.friend_ = seen;
            own.shy = own;
          }
      });
    for (auto &thread : running) thread.join();
    running.clear();
    shared = nil;
    EXPECT_EQ(holder.shy, nil);
  }
}

// One thread releases the last reference while another loads its weak one.
TEST_F(ObjectiveC, WeakLoadDuringReleaseYieldsObjectOrNil) {
  for (int round = 0; round < 200; ++round) {
    @autoreleasepool {
      RTAnimal *const holder = [[RTAnimal alloc] init];
      RTAnimal *kept = [[RTAnimal alloc] init];
      holder.shy = kept;
      std::atomic<bool> stops = false;
      std::thread reader([&] {
        while (!stops) @autoreleasepool {
            RTAnimal *const seen = holder.shy;
            if (seen) EXPECT_EQ(seen->legs_, 4);
          }
      });
      kept = nil;
      stops = true;
      reader.join();
    }
  }
}

}  // namespace
