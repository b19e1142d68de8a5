// Durability: whether a write must outlive a power cut when it returns, or only the process.
#pragma once

namespace FerritCore {

enum class Durability {
    // Kept when the process dies; a power cut may take back the latest such writes (never
    // corrupting what they lead to). What nearly every commit needs: what it says is fetched or
    // counted again.
    Ordinary,
    // On the disk when the write returns. What a commit needs when something else is dropped on
    // the strength of it: the commit that publishes a new pack version, after which the replaced
    // version's files are deleted.
    Durable,
};

}  // namespace FerritCore
