#include "Object.h"

#include <iterator>
#include <memory>

#include "Lock.h"

namespace reference {

namespace {

/// The last objects that went, still readable.
class Graveyard {
public:
    void bury(Counted* object) {
        std::unique_ptr<Counted> oldest;
        const Lock::Guard guard(m_lock);
        oldest.reset(object);
        std::swap(oldest, m_graves[m_next]);
        m_next = (m_next + 1) % std::size(m_graves);
    }

private:
    Lock m_lock;
    std::unique_ptr<Counted> m_graves[128];
    size_t m_next = 0;
};

Graveyard& graveyard() {
    static Graveyard s_graveyard;
    return s_graveyard;
}

} // namespace

Counted::Counted() {
    graveyard(); // exists before the first object goes, whatever thread that happens on
    ++account().liveObjects;
    ++account().liveReferences;
}

/// An object that is still alive here could not be constructed to its end, and was never handed out.
Counted::~Counted() {
    if (isAlive()) {
        --account().liveObjects;
        --account().liveReferences;
    }
}

ULONG Counted::addReference() {
    if (!isAlive()) {
        ++account().overReleases;
        return 0;
    }
    ++account().liveReferences;
    return static_cast<ULONG>(++m_references);
}

ULONG Counted::removeReference() {
    const long left = --m_references;
    if (left < 0) {
        ++m_references;
        ++account().overReleases;
        return 0;
    }
    --account().liveReferences;
    Life expected = Life::held;
    if (left == 0 && m_life.compare_exchange_strong(expected, Life::finishing)) {
        {
            const CallTimer timer(Direction::intoLibrary); // a codec's end waits for its jobs
            finish();
        }
        m_life = Life::gone;
        --account().liveObjects;
        graveyard().bury(this);
    }
    return static_cast<ULONG>(left);
}

} // namespace reference
