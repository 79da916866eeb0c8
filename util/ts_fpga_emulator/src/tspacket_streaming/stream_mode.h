#pragma once

namespace Vel::Utils {

/// How every input stream of the run is played.
enum class StreamMode {
    MaxRate = 0,  ///< as fast as the file and the data device allow
    PcrRate = 1,  ///< at the rate of the PCR in the stream
};

}  // namespace Vel::Utils
