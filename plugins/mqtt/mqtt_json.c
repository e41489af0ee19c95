#include "mqtt_json.h"

#include <stdlib.h>
#include <string.h>

#define MQTT_JSON_MAX_DEPTH 256

/* ---- Buffer ------------------------------------------------------------- */

void mqtt_buffer_append(mqtt_buffer *buffer, const char *bytes, size_t size)
{
    if (buffer->failed)
        return;
    if (buffer->size + size + 1 > buffer->capacity) {
        size_t capacity = buffer->capacity ? buffer->capacity : 64;
        char *grown;
        while (capacity < buffer->size + size + 1)
            capacity *= 2;
        grown = (char *)realloc(buffer->data, capacity);
        if (!grown) {
            buffer->failed = 1;
            return;
        }
        buffer->data = grown;
        buffer->capacity = capacity;
    }
    if (size)
        memcpy(buffer->data + buffer->size, bytes, size);
    buffer->size += size;
    buffer->data[buffer->size] = '\0';
}

void mqtt_buffer_free(mqtt_buffer *buffer)
{
    free(buffer->data);
    memset(buffer, 0, sizeof *buffer);
}

/* ---- Writer ------------------------------------------------------------- */

static void write_string(mqtt_buffer *buffer, const char *text)
{
    static const char hex[] = "0123456789abcdef";
    const unsigned char *p = (const unsigned char *)(text ? text : "");
    const unsigned char *run = p;
    mqtt_buffer_append(buffer, "\"", 1);
    for (; *p; ++p) {
        char escape[7] = {'\\', 0, 0, 0, 0, 0, 0};
        size_t length = 2;
        switch (*p) {
        case '"':
            escape[1] = '"';
            break;
        case '\\':
            escape[1] = '\\';
            break;
        case '\n':
            escape[1] = 'n';
            break;
        case '\r':
            escape[1] = 'r';
            break;
        case '\t':
            escape[1] = 't';
            break;
        case '\b':
            escape[1] = 'b';
            break;
        case '\f':
            escape[1] = 'f';
            break;
        default:
            if (*p >= 0x20)
                continue;
            escape[1] = 'u';
            escape[2] = '0';
            escape[3] = '0';
            escape[4] = hex[*p >> 4];
            escape[5] = hex[*p & 15];
            length = 6;
        }
        mqtt_buffer_append(buffer, (const char *)run, (size_t)(p - run));
        mqtt_buffer_append(buffer, escape, length);
        run = p + 1;
    }
    mqtt_buffer_append(buffer, (const char *)run, (size_t)(p - run));
    mqtt_buffer_append(buffer, "\"", 1);
}

void mqtt_json_begin(mqtt_buffer *buffer)
{
    mqtt_buffer_append(buffer, "{", 1);
}

void mqtt_json_member(mqtt_buffer *buffer, const char *key, const char *value)
{
    if (!buffer->failed && buffer->size > 1)
        mqtt_buffer_append(buffer, ",", 1);
    write_string(buffer, key);
    mqtt_buffer_append(buffer, ":", 1);
    write_string(buffer, value);
}

void mqtt_json_end(mqtt_buffer *buffer)
{
    mqtt_buffer_append(buffer, "}", 1);
}

/* ---- Reader ------------------------------------------------------------- */

typedef struct reader {
    const char *p;
    const char *end;
} reader;

typedef struct member {
    char *key;
    char *value;
} member;

static void skip_space(reader *r)
{
    while (r->p < r->end && (*r->p == ' ' || *r->p == '\t' || *r->p == '\n' || *r->p == '\r'))
        ++r->p;
}

static int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

/* Four hex digits after "\u"; -1 when they are not there. */
static long read_hex4(reader *r)
{
    long value = 0;
    int i;
    if (r->end - r->p < 4)
        return -1;
    for (i = 0; i < 4; ++i) {
        const int digit = hex_digit(r->p[i]);
        if (digit < 0)
            return -1;
        value = value * 16 + digit;
    }
    r->p += 4;
    return value;
}

static void append_utf8(mqtt_buffer *out, unsigned long code)
{
    char bytes[4];
    size_t n;
    if (code == 0 || (code >= 0xD800 && code <= 0xDFFF))
        code = 0xFFFD; /* no NUL inside a C string; a lone surrogate is no character */
    if (code < 0x80) {
        bytes[0] = (char)code;
        n = 1;
    } else if (code < 0x800) {
        bytes[0] = (char)(0xC0 | (code >> 6));
        bytes[1] = (char)(0x80 | (code & 0x3F));
        n = 2;
    } else if (code < 0x10000) {
        bytes[0] = (char)(0xE0 | (code >> 12));
        bytes[1] = (char)(0x80 | ((code >> 6) & 0x3F));
        bytes[2] = (char)(0x80 | (code & 0x3F));
        n = 3;
    } else {
        bytes[0] = (char)(0xF0 | (code >> 18));
        bytes[1] = (char)(0x80 | ((code >> 12) & 0x3F));
        bytes[2] = (char)(0x80 | ((code >> 6) & 0x3F));
        bytes[3] = (char)(0x80 | (code & 0x3F));
        n = 4;
    }
    mqtt_buffer_append(out, bytes, n);
}

/* A string at r->p (its opening quote), unescaped into out when out is given. */
static int read_string(reader *r, mqtt_buffer *out)
{
    const char *run;
    if (r->p >= r->end || *r->p != '"')
        return 0;
    run = ++r->p;
    while (r->p < r->end) {
        const unsigned char c = (unsigned char)*r->p;
        if (c == '"') {
            if (out)
                mqtt_buffer_append(out, run, (size_t)(r->p - run));
            ++r->p;
            return out ? !out->failed : 1;
        }
        if (c < 0x20)
            return 0;
        if (c != '\\') {
            ++r->p;
            continue;
        }
        if (out)
            mqtt_buffer_append(out, run, (size_t)(r->p - run));
        if (++r->p >= r->end)
            return 0;
        {
            const char e = *r->p++;
            static const char escapes[] = "\"\\/bfnrt";
            static const char decoded[] = "\"\\/\b\f\n\r\t";
            const char *simple = e != '\0' ? strchr(escapes, e) : NULL;
            if (simple) {
                if (out)
                    mqtt_buffer_append(out, &decoded[simple - escapes], 1);
            } else if (e == 'u') {
                long code = read_hex4(r);
                if (code < 0)
                    return 0;
                if (code >= 0xD800 && code <= 0xDBFF && r->end - r->p >= 6 && r->p[0] == '\\' &&
                    r->p[1] == 'u') {
                    reader low = {r->p + 2, r->end};
                    const long second = read_hex4(&low);
                    if (second >= 0xDC00 && second <= 0xDFFF) {
                        code = 0x10000 + ((code - 0xD800) << 10) + (second - 0xDC00);
                        r->p = low.p;
                    }
                }
                if (out)
                    append_utf8(out, (unsigned long)code);
            } else {
                return 0;
            }
        }
        run = r->p;
    }
    return 0;
}

static int read_digits(reader *r)
{
    const char *start = r->p;
    while (r->p < r->end && *r->p >= '0' && *r->p <= '9')
        ++r->p;
    return r->p > start;
}

static int skip_number(reader *r)
{
    if (r->p < r->end && *r->p == '-')
        ++r->p;
    if (r->p < r->end && *r->p == '0')
        ++r->p;
    else if (!read_digits(r))
        return 0;
    if (r->p < r->end && *r->p == '.') {
        ++r->p;
        if (!read_digits(r))
            return 0;
    }
    if (r->p < r->end && (*r->p == 'e' || *r->p == 'E')) {
        ++r->p;
        if (r->p < r->end && (*r->p == '+' || *r->p == '-'))
            ++r->p;
        if (!read_digits(r))
            return 0;
    }
    return 1;
}

static int skip_literal(reader *r, const char *word)
{
    const size_t n = strlen(word);
    if ((size_t)(r->end - r->p) < n || memcmp(r->p, word, n) != 0)
        return 0;
    r->p += n;
    return 1;
}

/* Any value at r->p, checked and skipped. */
static int skip_value(reader *r, int depth)
{
    if (depth > MQTT_JSON_MAX_DEPTH)
        return 0;
    skip_space(r);
    if (r->p >= r->end)
        return 0;
    switch (*r->p) {
    case '"':
        return read_string(r, NULL);
    case 't':
        return skip_literal(r, "true");
    case 'f':
        return skip_literal(r, "false");
    case 'n':
        return skip_literal(r, "null");
    case '{':
    case '[': {
        const char close = *r->p == '{' ? '}' : ']';
        const int object = close == '}';
        ++r->p;
        skip_space(r);
        if (r->p < r->end && *r->p == close) {
            ++r->p;
            return 1;
        }
        for (;;) {
            if (object) {
                skip_space(r);
                if (!read_string(r, NULL))
                    return 0;
                skip_space(r);
                if (r->p >= r->end || *r->p++ != ':')
                    return 0;
            }
            if (!skip_value(r, depth + 1))
                return 0;
            skip_space(r);
            if (r->p >= r->end)
                return 0;
            if (*r->p == close) {
                ++r->p;
                return 1;
            }
            if (*r->p++ != ',')
                return 0;
        }
    }
    default:
        return skip_number(r);
    }
}

static void free_members(member *members, long count)
{
    long i;
    for (i = 0; i < count; ++i) {
        free(members[i].key);
        free(members[i].value);
    }
    free(members);
}

long mqtt_json_read_object(const char *text, size_t size, mqtt_json_member_fn callback, void *user)
{
    reader r;
    member *members = NULL;
    long count = 0;
    long capacity = 0;
    long i;
    if (!text)
        return -1;
    r.p = text;
    r.end = text + size;
    skip_space(&r);
    if (r.p >= r.end || *r.p++ != '{')
        return -1;
    skip_space(&r);
    if (r.p < r.end && *r.p == '}') {
        ++r.p;
    } else {
        for (;;) {
            mqtt_buffer key = {0};
            mqtt_buffer value = {0};
            const char *start;
            int ok;
            skip_space(&r);
            ok = read_string(&r, &key);
            skip_space(&r);
            ok = ok && r.p < r.end && *r.p++ == ':';
            skip_space(&r);
            start = r.p;
            if (ok && r.p < r.end && *r.p == '"')
                ok = read_string(&r, &value);
            else if (ok && skip_value(&r, 1))
                mqtt_buffer_append(&value, start, (size_t)(r.p - start));
            else
                ok = 0;
            if (ok && !key.data)
                mqtt_buffer_append(&key, "", 0);
            if (ok && !value.data)
                mqtt_buffer_append(&value, "", 0);
            if (ok && count == capacity) {
                member *grown;
                capacity = capacity ? capacity * 2 : 8;
                grown = (member *)realloc(members, (size_t)capacity * sizeof *members);
                if (grown)
                    members = grown;
                else
                    ok = 0;
            }
            if (!ok || key.failed || value.failed) {
                mqtt_buffer_free(&key);
                mqtt_buffer_free(&value);
                free_members(members, count);
                return -1;
            }
            members[count].key = key.data;
            members[count].value = value.data;
            ++count;
            skip_space(&r);
            if (r.p < r.end && *r.p == ',') {
                ++r.p;
                continue;
            }
            if (r.p < r.end && *r.p == '}') {
                ++r.p;
                break;
            }
            free_members(members, count);
            return -1;
        }
    }
    skip_space(&r);
    if (r.p != r.end) {
        free_members(members, count);
        return -1;
    }
    for (i = 0; i < count && callback; ++i)
        callback(user, members[i].key, members[i].value);
    free_members(members, count);
    return count;
}
