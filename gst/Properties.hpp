#pragma once

/// Properties of an element, as a flat table over a plain record of settings.

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include <gst/gst.h>

namespace vlx::gst
{

/// States in which a property may be set and takes effect.
enum class Mutability
{
    Stopped, ///< in READY and below
    AnyTime,
};

/// The settings of one element class, each with its place in the record, whose initial values are
/// the properties' defaults. Filled in the class's initialisation, constant afterwards.
template <typename Settings>
class Properties
{
public:
    /// Starts the table of a class with the properties of every element.
    void begin(gpointer objectClass)
    {
        m_class = G_OBJECT_CLASS(objectClass);
        addText("socket-name", &Settings::name, "Name of the stream, 1 to 107 bytes");
        addNumber(
            "realtime-priority", &Settings::realtimePriority, 99,
            "Real-time priority (SCHED_RR) of the stream's threads, if permitted; 0: normal "
            "scheduling");
    }

    /// Installs a text property; empty by default.
    void addText(const char* name, std::string Settings::*field, const char* blurb)
    {
        install(g_param_spec_string(name, name, blurb, "", getFlags({})), field);
    }

    void addNumber(const char* name, int Settings::*field, int largest, const char* blurb)
    {
        const int initial = Settings().*field;
        install(g_param_spec_int(name, name, blurb, 0, largest, initial, getFlags({})), field);
    }

    void addChoice(const char* name, int Settings::*field, GType type, const char* blurb)
    {
        install(g_param_spec_enum(name, name, blurb, type, Settings().*field, getFlags({})), field);
        gst_type_mark_as_plugin_api(type, GstPluginAPIFlags{});
    }

    void addFlag(const char* name, bool Settings::*field, Mutability when, const char* blurb)
    {
        const auto initial = static_cast<gboolean>(Settings().*field);
        install(g_param_spec_boolean(name, name, blurb, initial, getFlags(when)), field);
    }

    /// @param blurb  names the unit
    void addNumber(const char* name, guint64 Settings::*field, Mutability when, const char* blurb)
    {
        install(
            g_param_spec_uint64(
                name, name, blurb, 0, G_MAXINT64, Settings().*field, getFlags(when)),
            field);
    }

    void set(Settings& settings, guint id, const GValue* value) const
    {
        const Field& field = m_fields[id - 1];
        if (const auto* const text = std::get_if<std::string Settings::*>(&field))
        {
            const gchar* const given = g_value_get_string(value);
            settings.** text = given != nullptr ? given : "";
        }
        else if (const auto* const flag = std::get_if<bool Settings::*>(&field))
            settings.** flag = g_value_get_boolean(value) != FALSE;
        else if (const auto* const time = std::get_if<guint64 Settings::*>(&field))
            settings.** time = g_value_get_uint64(value);
        else if (const auto* const number = std::get_if<int Settings::*>(&field))
            settings.** number =
                G_VALUE_HOLDS_ENUM(value) ? g_value_get_enum(value) : g_value_get_int(value);
    }

    void get(const Settings& settings, guint id, GValue* value) const
    {
        const Field& field = m_fields[id - 1];
        if (const auto* const text = std::get_if<std::string Settings::*>(&field))
            g_value_set_string(value, (settings.**text).c_str());
        else if (const auto* const flag = std::get_if<bool Settings::*>(&field))
            g_value_set_boolean(value, static_cast<gboolean>(settings.**flag));
        else if (const auto* const time = std::get_if<guint64 Settings::*>(&field))
            g_value_set_uint64(value, settings.**time);
        else if (const auto* const number = std::get_if<int Settings::*>(&field))
            G_VALUE_HOLDS_ENUM(value) ? g_value_set_enum(value, settings.**number)
                                      : g_value_set_int(value, settings.**number);
    }

    /// Installs the read-only property "stats" after all others.
    void addStatistics(const char* blurb)
    {
        const auto flags = static_cast<GParamFlags>(
            static_cast<int>(G_PARAM_READABLE) | static_cast<int>(G_PARAM_STATIC_STRINGS));
        g_object_class_install_property(
            m_class, getStatisticsId(),
            g_param_spec_boxed("stats", "stats", blurb, GST_TYPE_STRUCTURE, flags));
    }

    guint getStatisticsId() const
    {
        return static_cast<guint>(m_fields.size()) + 1;
    }

private:
    using Field = std::
        variant<std::string Settings::*, bool Settings::*, int Settings::*, guint64 Settings::*>;

    static GParamFlags getFlags(Mutability when)
    {
        const int mutability =
            when == Mutability::AnyTime ? GST_PARAM_MUTABLE_PLAYING : GST_PARAM_MUTABLE_READY;
        return static_cast<GParamFlags>(
            static_cast<int>(G_PARAM_READWRITE) | static_cast<int>(G_PARAM_STATIC_STRINGS) |
            mutability);
    }

    void install(GParamSpec* spec, Field field)
    {
        m_fields.push_back(field);
        g_object_class_install_property(m_class, static_cast<guint>(m_fields.size()), spec);
    }

    GObjectClass* m_class = nullptr;
    std::vector<Field> m_fields; // that of property N is at N - 1
};

} // namespace vlx::gst
