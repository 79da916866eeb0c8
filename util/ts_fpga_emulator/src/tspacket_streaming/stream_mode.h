#pragma once

namespace Vel::Utils {

/// How every input stream of the run is played.
enum class StreamMode {
    MaxRate = 0,  ///< as fast as the file and the data device allow
    PcrRate = 1,  ///< paced by the PCR in the stream
};

/// How output is paced in mode PcrRate.
enum class PcrPacing {
    Batches,  ///< -m: at the mean rate, one sleep per batch
    Clock,    ///< -c: each packet at its PCR time
};

}  // namespace Vel::Utils
