#include "qslogStat.h"

#include "qslogTime.h"

namespace qslog {

namespace {

constexpr bool kLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

void Field(Writer& out, std::string_view name) {
    out.Put(name);
    out.Put(':');
    for (size_t i = name.size(); i < 14; ++i)
        out.Put(' ');
}

void PutEnd(Writer& out, const char* name, const Entry* e, TimeFormatter& time) {
    Field(out, name);
    if (!e) {
        out.Put("none\n");
        return;
    }
    out.Put('#');
    out.PutUInt(e->rec.Id());
    out.Put("  ");
    out.Put(time.Short(e->rec.Time()));
    out.Put('\n');
}

} // namespace

void PutStat(Writer& out, const LogSource& source, const std::vector<Entry>& entries) {
    const LogImage& image = source.Image();
    const HeaderWords& h = image.Original();
    TimeFormatter time;

    Field(out, "file");
    out.Put(source.Name());
    out.Put('\n');

    Field(out, "size");
    out.PutUInt(h.size);
    out.Put(" bytes (");
    out.PutUInt(h.size >> 10);
    out.Put(" KiB)");
    if (h.size != image.FileSize()) {
        out.Put(", file has ");
        out.PutUInt(image.FileSize());
    }
    out.Put('\n');

    Field(out, "byte order");
    bool little = kLittleEndian != image.OppositeOrder();
    out.Put(image.OppositeOrder() ? "opposite" : "native");
    out.Put(little ? " (little-endian)\n" : " (big-endian)\n");

    Field(out, "records");
    out.PutUInt(h.count);
    out.Put(" written, ");
    out.PutUInt(source.Chain().records);
    out.Put(" intact\n");

    Field(out, "wraps");
    out.PutUInt(h.wraps);
    out.Put('\n');

    const Entry* oldest = nullptr;
    const Entry* newest = nullptr;
    for (const Entry& e : entries) {
        if (e.IsGap())
            continue;
        if (!oldest)
            oldest = &e;
        newest = &e;
    }
    PutEnd(out, "oldest", oldest, time);
    PutEnd(out, "newest", newest, time);

    Field(out, "header");
    out.Put(image.HeaderValid() ? "valid\n" : "not valid\n");
    Field(out, "record chain");
    if (source.Chain().valid && !image.HeaderRebuilt()) {
        out.Put("valid\n");
    } else {
        out.Put("broken");
        if (source.Chain().lost) {
            out.Put(", ");
            out.PutUInt(source.Chain().lost);
            out.Put(" records unreadable");
        }
        out.Put('\n');
    }
}

} // namespace qslog
