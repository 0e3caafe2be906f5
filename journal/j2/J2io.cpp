#include "journal/j2/J2io.h"

#include "journal/j2/J2Format.h"

J2io::~J2io() {
    while (elem* e = pop()) delete e;
}

size_t J2io::size() const {
    size_t n = 0;
    for (const elem* e = mHead; e; e = e->next) ++n;
    return n;
}

void J2io::link(elem* e, elem* before) {
    e->next = before;
    e->prev = before ? before->prev : mTail;
    if (e->prev) e->prev->next = e;
    else mHead = e;
    if (before) before->prev = e;
    else mTail = e;
}

void J2io::unlink(elem* e) {
    if (e->prev) e->prev->next = e->next;
    else mHead = e->next;
    if (e->next) e->next->prev = e->prev;
    else mTail = e->prev;
    e->next = e->prev = nullptr;
}

J2io::elem* J2io::pop() {
    elem* e = mHead;
    if (e) unlink(e);
    return e;
}

void J2io::insert(uint32_t lba, uint32_t sectors, unsigned char* data) {
    if (sectors == 0) return;
    uint64_t end = uint64_t(lba) + sectors;
    elem* at = mHead;
    while (at && at->lba < lba) at = at->next;
    elem* fresh = new elem;
    fresh->lba = lba;
    fresh->sectors = sectors;
    fresh->data = data;
    link(fresh, at);

    // An older extent that starts before the new one and reaches into it is
    // cut back to the new start; its tail beyond the new end survives as an
    // extent of its own behind the new one.
    if (elem* p = fresh->prev) {
        uint64_t pEnd = uint64_t(p->lba) + p->sectors;
        if (pEnd > lba) {
            p->sectors = lba - p->lba;
            if (pEnd > end) {
                elem* tail = new elem;
                tail->lba = uint32_t(end);
                tail->sectors = uint32_t(pEnd - end);
                tail->data = p->data + (end - p->lba) * kSectorSize;
                link(tail, fresh->next);
            }
        }
    }
    // Later extents wholly inside the new one go; one that runs past its end
    // loses its front.
    for (elem* n = fresh->next; n && n->lba < end;) {
        elem* following = n->next;
        uint64_t nEnd = uint64_t(n->lba) + n->sectors;
        if (nEnd <= end) {
            unlink(n);
            delete n;
        } else {
            uint32_t skip = uint32_t(end - n->lba);
            n->lba = uint32_t(end);
            n->sectors -= skip;
            n->data += uint64_t(skip) * kSectorSize;
            break;
        }
        n = following;
    }
}

std::ostream& operator<<(std::ostream& os, const J2io& io) {
    for (const J2io::elem* e = io.front(); e; e = e->next)
        os << "  lba 0x" << std::hex << e->lba << std::dec << " sectors " << e->sectors << "\n";
    return os;
}
