#include "CapsText.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <vector>

#include <gst/video/video.h>

#include <vlxkit/Media.hpp>

namespace vlx::gst
{

namespace
{

constexpr std::size_t MaxNameBytes = 63;
constexpr int MaxFields = 64;

constexpr std::size_t MaxKnownNames = 16'384;

/// Limits the memory for names, which GStreamer never releases.
///
/// @return whether all names are known, or became known
bool learnNames(const std::vector<std::string_view>& names)
{
    static std::mutex mutex;
    // Never destroyed: threads may still receive while the process exits.
    static auto& known = *new std::set<std::string, std::less<>>; // guarded by mutex
    const std::lock_guard lock(mutex);
    for (const std::string_view name : names)
    {
        if (known.contains(name))
            continue;
        if (known.size() == MaxKnownNames)
            return false;
        known.emplace(name);
    }
    return true;
}

bool isLetter(char c)
{
    return g_ascii_isalpha(c) != FALSE;
}

/// @return whether a character needs no quotes
bool isPlain(char c)
{
    return g_ascii_isalnum(c) != FALSE || std::string_view("/-_.:+").find(c) != std::string::npos;
}

// Only what GStreamer can parse, since it leaks an array that it fails to parse. It parses numbers
// with a leading zero as octal.
template <typename Integer>
bool isInteger(std::string_view text)
{
    Integer value = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    const bool isOctal = text.size() > 1 && text[text.front() == '-' ? 1 : 0] == '0';
    return result.ec == std::errc() && result.ptr == end && !isOctal;
}

bool isFraction(std::string_view text)
{
    gint numbers[2] = {};
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos)
        return false;
    const std::string_view parts[] = {text.substr(0, slash), text.substr(slash + 1)};
    for (std::size_t i = 0; i < 2; ++i)
    {
        const char* const end = parts[i].data() + parts[i].size();
        const auto result = std::from_chars(parts[i].data(), end, numbers[i]);
        if (result.ec != std::errc() || result.ptr != end)
            return false;
    }
    return numbers[0] >= -G_MAXINT && numbers[1] > 0;
}

template <typename Real>
bool isReal(std::string_view text)
{
    Real value = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end && std::isfinite(value);
}

bool isHex(std::string_view text)
{
    return !text.empty() &&
           std::all_of(
               text.begin(), text.end(), [](char c) { return g_ascii_isxdigit(c) != FALSE; });
}

bool isBitmask(std::string_view text)
{
    return text.starts_with("0x") && text.size() <= 18 && isHex(text.substr(2));
}

bool isBuffer(std::string_view text)
{
    return text.size() % 2 == 0 && isHex(text);
}

bool isBoolean(std::string_view text)
{
    return text == "true" || text == "false";
}

bool isString(std::string_view text)
{
    return text != "NULL"; // would have no characters at all
}

// Flags and mask, then the names of the flags.
bool isFlagSet(std::string_view text)
{
    const std::size_t end = text.find(':');
    const std::string_view mask = end == text.npos ? "" : text.substr(end + 1);
    return end <= 8 && isHex(text.substr(0, end)) && isHex(mask.substr(0, mask.find(':')));
}

struct ValueType
{
    const char* name;
    bool (*isValue)(std::string_view text); ///< of at least one plain character
};

// As gst_caps_to_string() names them.
constexpr ValueType ValueTypes[] = {
    {"int", isInteger<gint>},      {"uint", isInteger<guint>},
    {"gint64", isInteger<gint64>}, {"guint64", isInteger<guint64>},
    {"boolean", isBoolean},        {"fraction", isFraction},
    {"float", isReal<gfloat>},     {"double", isReal<gdouble>},
    {"bitmask", isBitmask},        {"string", isString},
    {"buffer", isBuffer},          {"GstVideoMultiviewFlagsSet", isFlagSet},
};

bool isAllowed(GType type)
{
    const GType types[] = {G_TYPE_INT,      G_TYPE_UINT,       G_TYPE_INT64,
                           G_TYPE_UINT64,   G_TYPE_FLOAT,      G_TYPE_DOUBLE,
                           G_TYPE_BOOLEAN,  GST_TYPE_FRACTION, G_TYPE_STRING,
                           GST_TYPE_BUFFER, GST_TYPE_BITMASK,  GST_TYPE_VIDEO_MULTIVIEW_FLAGSET};
    return std::find(std::begin(types), std::end(types), type) != std::end(types);
}

bool isAllowed(const GValue* value)
{
    if (GST_VALUE_HOLDS_ARRAY(value))
    {
        for (guint i = 0; i < gst_value_array_get_size(value); ++i)
            if (!isAllowed(gst_value_array_get_value(value, i)))
                return false;
        return true;
    }
    if (G_VALUE_HOLDS_STRING(value))
    {
        const gchar* const text = g_value_get_string(value);
        return text != nullptr && g_utf8_validate(text, -1, nullptr) != FALSE;
    }
    return isAllowed(G_VALUE_TYPE(value));
}

/// @return whether a field has the type that elements rely on: some crash otherwise
bool hasExpectedType(GQuark name, const GValue* value)
{
    const std::string_view field = g_quark_to_string(name);
    if (field == "codec_data")
        return GST_VALUE_HOLDS_BUFFER(value);
    return field != "streamheader" ||
           (GST_VALUE_HOLDS_ARRAY(value) && gst_value_array_get_size(value) > 0 &&
            GST_VALUE_HOLDS_BUFFER(gst_value_array_get_value(value, 0)));
}

/// Checks the grammar of caps, so that a parser is given nothing unusual.
class CapsGrammar
{
public:
    explicit CapsGrammar(std::string_view text) : m_rest(text) {}

    bool isCaps()
    {
        const auto isPrintable = [](char c) { return c >= ' ' && c <= '~'; };
        if (!std::all_of(m_rest.begin(), m_rest.end(), isPrintable))
            return false;
        const std::string_view name = takeName();
        if (name.empty() || name == "ANY" || name == "EMPTY" || name == "NONE" ||
            name.starts_with("audio/x-raw-") || name.starts_with("video/x-raw-")) // obsolete
            return false;
        take("(memory:SystemMemory)");
        int numFields = 0;
        while (take(", "))
            if (++numFields > MaxFields || !isField())
                return false;
        return m_rest.empty();
    }

    /// @return parts of the text
    const std::vector<std::string_view>& getNames() const
    {
        return m_names;
    }

private:
    bool isField()
    {
        if (takeName().empty() || !take("=("))
            return false;
        const ValueType* const type = takeType();
        return type != nullptr && (take("<") ? isArray(*type) : isValue(*type));
    }

    bool isValue(const ValueType& type)
    {
        if (take("\""))
            return type.isValue == isString && takeQuoted();
        const std::string_view text = takePlain();
        return !text.empty() && type.isValue(text);
    }

    bool isArray(const ValueType& type)
    {
        take(" ");
        if (take(" >") || take(">"))
            return true;
        do
        {
            const bool isSameType = !take("(") || takeType() == &type;
            if (!isSameType || !isValue(type))
                return false;
        } while (take(", "));
        return take(" >") || take(">");
    }

    bool take(std::string_view expected)
    {
        const bool isNext = m_rest.starts_with(expected);
        if (isNext)
            m_rest.remove_prefix(expected.size());
        return isNext;
    }

    std::string_view takePlain()
    {
        const auto end = std::find_if_not(m_rest.begin(), m_rest.end(), isPlain);
        const std::string_view text =
            m_rest.substr(0, static_cast<std::size_t>(end - m_rest.begin()));
        m_rest.remove_prefix(text.size());
        return text;
    }

    std::string_view takeName()
    {
        const std::string_view name = takePlain();
        if (name.empty() || name.size() > MaxNameBytes || !isLetter(name.front()))
            return {};
        m_names.push_back(name);
        return name;
    }

    const ValueType* takeType()
    {
        const std::string_view name = takePlain();
        const auto* const type = std::find_if(
            std::begin(ValueTypes), std::end(ValueTypes),
            [&](const ValueType& known) { return known.name == name; });
        return take(")") && type != std::end(ValueTypes) ? type : nullptr;
    }

    // Up to the next quote without a backslash, after the first one.
    bool takeQuoted()
    {
        std::size_t end = 0;
        while (end < m_rest.size() && m_rest[end] != '"')
            end += m_rest[end] == '\\' ? 2U : 1U;
        if (end >= m_rest.size())
            return false;
        const std::string text = '"' + std::string(m_rest.substr(0, end + 1));
        m_rest.remove_prefix(end + 1);
        GValue value = G_VALUE_INIT;
        g_value_init(&value, G_TYPE_STRING);
        const bool isValid = gst_value_deserialize(&value, text.c_str()) != FALSE;
        g_value_unset(&value);
        return isValid;
    }

    std::string_view m_rest;
    std::vector<std::string_view> m_names;
};

/// Checks a text before GStreamer parses it.
bool isCaps(std::string_view text)
{
    CapsGrammar grammar(text);
    return text.size() <= kit::MaxMediaCapsBytes && grammar.isCaps() &&
           learnNames(grammar.getNames());
}

} // unnamed namespace

CapsPtr parseCaps(std::string_view text)
{
    if (!isCaps(text))
        return nullptr;
    static_cast<void>(GST_TYPE_VIDEO_MULTIVIEW_FLAGSET); // known to the parser once it is used
    CapsPtr caps(gst_caps_from_string(std::string(text).c_str()));
    if (!caps || gst_caps_get_size(caps.get()) != 1 || gst_caps_is_fixed(caps.get()) == FALSE ||
        gst_caps_features_is_equal(
            gst_caps_get_features(caps.get(), 0), GST_CAPS_FEATURES_MEMORY_SYSTEM_MEMORY) == FALSE)
        return nullptr;
    const auto check = [](GQuark name, const GValue* value, gpointer /*data*/)
    { return static_cast<gboolean>(isAllowed(value) && hasExpectedType(name, value)); };
    const GstStructure* const fields = gst_caps_get_structure(caps.get(), 0);
    return gst_structure_foreach(fields, check, nullptr) != FALSE ? std::move(caps) : nullptr;
}

std::string toText(const GstCaps* caps)
{
    gchar* const characters = gst_caps_to_string(caps);
    std::string text(characters);
    g_free(characters);
    return text;
}

} // namespace vlx::gst
