#include "nodes/count.h"

#include "nodes/node_support.h"

#include <QByteArray>

namespace corv::nodes {

namespace {

constexpr char kOldPrefix[] = "io.marrowfield.count.";

// Copies the old prefixed key to its "!" form, keeping the value's type.
void move_key(corv_store *store, const char *stem)
{
    const QByteArray old_key = QByteArray(kOldPrefix) + stem;
    const QByteArray new_key = QByteArray("!") + stem;
    const char *from = old_key.constData();
    const char *to = new_key.constData();
    if (corv_store_has_int(store, from))
        corv_store_set_int(store, to, corv_store_get_int(store, from));
    else if (corv_store_has_float(store, from))
        corv_store_set_float(store, to, corv_store_get_float(store, from));
    else if (corv_store_has_string(store, from))
        corv_store_set_string(store, to, corv_store_get_string(store, from));
}

} // namespace

bool migrate_count(void *, corv_store *store, char *out_id)
{
    static const char *const ids[] = {"io.marrowfield.countblock", "io.marrowfield.countdiscretetime",
                                      "io.marrowfield.countrollingtime", "io.marrowfield.countchildreset"};
    std::int32_t mode = 0;
    for (const char *key : {"io.marrowfield.count.mode", "!mode"}) {
        if (corv_store_has_int(store, key)) {
            mode = corv_store_get_int(store, key);
            break;
        }
    }
    if (mode < 0 || mode > 3)
        return false;
    for (const char *stem : {"size", "seconds", "threshold", "key"})
        move_key(store, stem);
    write_name(out_id, ids[mode]);
    return true;
}

} // namespace corv::nodes
