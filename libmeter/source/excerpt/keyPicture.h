// The picture of a random access point, cut out of an elementary stream that comes in pieces.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "fields/bytes.h"
#include "media/h264.h"
#include "media/h265.h"
#include "media/mpeg2Video.h"
#include "meter/excerpt.h"

namespace meter {

// Looks for an I picture whose parameter sets came before it, and keeps nothing else: of other units their
// first bytes are read, parameter sets and what stands between them and a picture have kFrontBytes each. Of a
// picture of two fields the second one may be predicted. Half a picture, a field without its other one, is
// given up, as is one of which only some slices are intra coded; the next one is taken.
class KeyPicture {
  public:
    explicit KeyPicture(ExcerptVideo codec);

    // More of the elementary stream; nothing is done once it isEnded().
    void feed(Bytes piece);
    // What comes does not go on from what came: the picture that was open is given up.
    void gap();
    // The picture is whole, which the next one shows, or an end of sequence; or it is too large.
    bool isEnded() const {
        return state_ == State::kWhole || state_ == State::kTooLarge;
    }
    // What is kept.
    std::size_t bytes() const {
        return picture_.capacity() + open_.capacity();
    }
    bool isTooLarge() const {
        return state_ == State::kTooLarge;
    }
    // REQUIRES: isEnded() and not isTooLarge(); once.
    std::string take() {
        return std::move(picture_);
    }

  private:
    enum class State : uint8_t { kLooking, kTaking, kWhole, kTooLarge };
    enum class Unit : uint8_t { kOther, kSequenceSet, kSet, kFront, kSlice, kEnd };
    // Of the open unit: not yet said, passed over, kept to its end.
    enum class Use : uint8_t { kOpen, kPassed, kKept };

    static constexpr std::size_t kFrontBytes = std::size_t{64} * 1024;

    Unit kindOf(uint8_t header) const;
    std::size_t wanted(uint8_t header) const;
    void read(Bytes unit);
    void closeUnit(Bytes unit);
    void lookAtHead();
    void beginSlice(Bytes head);
    void keepSet(Bytes unit, bool sequence);
    void keepFront(Bytes unit);
    bool setsAreComplete() const;
    bool awaitsField() const;
    bool isPredicted() const;
    void giveUp();
    void append(Bytes unit);

    const ExcerptVideo codec_;
    std::variant<Mpeg2Reader, H264Reader, H265Reader> reader_;
    State state_ = State::kLooking;
    std::vector<uint8_t>
        open_;  // the open unit from behind its start code, or the last bytes where it is passed over
    Use use_ = Use::kPassed;
    std::vector<std::vector<uint8_t>> sets_;  // in the order they came, each once
    std::size_t setsBytes_ = 0;
    bool sliceSinceSets_ = false;
    bool paired_ = false;  // the open picture is of two fields
    std::string front_;    // with start codes: what belongs to the next slice's picture
    std::string picture_;
};

}  // namespace meter
