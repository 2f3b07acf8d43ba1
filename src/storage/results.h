#pragma once

/// What the operations of CStorage return as an int: kDone, or the code of what failed.

constexpr int kDone = 0;

enum WriteIdblockResult : int {
    kFlashBootSizeUnknown = -1,
    kFlashDataSizeUnknown = -2,
    kIdblockNotPrepared = -3,  ///< prepare_write_idblock refused
    kIdblockNotCreated = -4,   ///< create_idblock failed
    kNoIdblockMemory = -5,
};

enum CreateIdblockResult : int {
    kFlashBootAbsent = -1,
    kFlashBootUnreadable = -2,  ///< or its size is not the given one
    kFlashDataAbsent = -3,
    kFlashDataUnreadable = -4,  ///< or its size is not the given one
};

enum WritePartitionResult : int {
    kUnknownImageType = -255,
};

enum WriteImageResult : int {
    kImageTooLarge = -1,  ///< for its partition
    kImageUnreadable = -2,
    kNoImageMemory = -3,
};

enum WriteSparseImageResult : int {
    kSparseHeaderUnreadable = -1,
    kSparseImageTooLarge = -2,  ///< for its partition
    kNoTemporaryFile = -3,
    kChunkHeaderUnreadable = -4,
    kRawDataUnreadable = -5,
    kFillValueUnreadable = -6,
    kNoSparseMemory = -7,
};

enum WriteParameterResult : int {
    kParameterTooLarge = -1,  ///< for its partition, or no record is loaded
    kNoParameterMemory = -2,
};

enum WriteGptResult : int {
    kNoPartitionList = -2,  ///< in the text, or no text is loaded
    kTooManyPartitions = -3,
    kNoGptMemory = -4,
};
