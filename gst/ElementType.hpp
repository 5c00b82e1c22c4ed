#pragma once

/// GObject boilerplate of both elements.

#include <gst/gst.h>

#include "Properties.hpp"

namespace vlx::gst
{

/// Makes a type handle "vlx://NAME", which sets its property "socket-name".
void addUriHandler(GType type);

/// An element implemented by an object of the class Impl, which is created and deleted with it.
/// Impl is constructed from a Parent*, derives from WithSettings, and has
///   static void initClass(gpointer elementClass): everything except property access
///   GstStructure* makeStatistics() const
///   bool onStart(), on the way from READY to PAUSED; false to refuse
///   ProvidedClock& getProvidedClock(), void setUpClock() after that, to offer it
///   void onStop(), on the way back, once the streaming thread has ended
/// Optional: void onPlaying() before PLAYING is reached, void onPaused() once it has been left.
template <typename Impl, typename Parent>
class ElementType
{
public:
    static Impl& of(gpointer instance)
    {
        return *static_cast<Instance*>(instance)->impl;
    }

    static gpointer getParentClass()
    {
        return s_parentClass;
    }

    static GType registerType(GType parent, const char* name)
    {
        GTypeQuery query;
        g_type_query(parent, &query);
        const GTypeInfo info = {
            static_cast<guint16>(query.class_size),
            nullptr,
            nullptr,
            initClass,
            nullptr,
            nullptr,
            sizeof(Instance),
            0,
            initInstance,
            nullptr};
        const GType type = g_type_register_static(parent, name, &info, GTypeFlags{});
        addUriHandler(type);
        return type;
    }

private:
    struct Instance
    {
        Parent parent;
        Impl* impl;
    };

    static void initClass(gpointer type, gpointer /*data*/)
    {
        s_parentClass = g_type_class_peek_parent(type);
        auto* const objectClass = G_OBJECT_CLASS(type);
        objectClass->set_property = [](GObject* object, guint id, const GValue* value,
                                       GParamSpec* /*spec*/) { of(object).setProperty(id, value); };
        objectClass->get_property = [](GObject* object, guint id, GValue* value, GParamSpec*)
        {
            if (id == Impl::getProperties().getStatisticsId())
                g_value_take_boxed(value, of(object).makeStatistics());
            else
                of(object).getProperty(id, value);
        };
        objectClass->finalize = [](GObject* object)
        {
            delete &of(object);
            G_OBJECT_CLASS(s_parentClass)->finalize(object);
        };
        GST_ELEMENT_CLASS(type)->change_state = changeState;
        GST_ELEMENT_CLASS(type)->provide_clock = [](GstElement* element)
        { return of(element).getProvidedClock().get().release(); };
        Impl::initClass(type);
    }

    static GstStateChangeReturn changeState(GstElement* element, GstStateChange transition)
    {
        Impl& impl = of(element);
        const bool starts = transition == GST_STATE_CHANGE_READY_TO_PAUSED;
        if (starts && !impl.onStart())
            return GST_STATE_CHANGE_FAILURE;
        if (starts)
            impl.setUpClock();
        if constexpr (requires { impl.onPlaying(); })
            if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING)
                impl.onPlaying();
        const GstStateChangeReturn result =
            GST_ELEMENT_CLASS(s_parentClass)->change_state(element, transition);
        if constexpr (requires { impl.onPaused(); })
            if (transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED)
                impl.onPaused();
        if (transition == GST_STATE_CHANGE_PAUSED_TO_READY ||
            (starts && result == GST_STATE_CHANGE_FAILURE))
        {
            impl.onStop();
            impl.getProvidedClock().withdraw();
        }
        return result;
    }

    static void initInstance(GTypeInstance* instance, gpointer /*class*/)
    {
        auto* const self = static_cast<Instance*>(static_cast<gpointer>(instance));
        self->impl = new Impl(&self->parent);
    }

    static inline gpointer s_parentClass = nullptr;
};

/// Settings that are changed by properties.
template <typename Settings>
class WithSettings
{
public:
    explicit WithSettings(gpointer element) : m_object(element) {}

    /// Filled by initClass().
    static Properties<Settings>& getProperties()
    {
        static Properties<Settings> properties;
        return properties;
    }

    void setProperty(guint id, const GValue* value)
    {
        GST_OBJECT_LOCK(m_object);
        getProperties().set(m_settings, id, value);
        GST_OBJECT_UNLOCK(m_object);
    }

    void getProperty(guint id, GValue* value) const
    {
        getProperties().get(getSettings(), id, value);
    }

protected:
    Settings getSettings() const
    {
        GST_OBJECT_LOCK(m_object);
        Settings settings = m_settings;
        GST_OBJECT_UNLOCK(m_object);
        return settings;
    }

private:
    const gpointer m_object;
    Settings m_settings; // guarded by the object lock
};

/// @return whether the stream has a name; posts an error otherwise
bool checkName(gpointer element, const std::string& name);

/// Describes an element and its one pad, whose template allows any caps.
void describeElement(
    gpointer elementClass,
    const char* name,
    const char* kind,
    const char* purpose,
    GstPadDirection direction);

} // namespace vlx::gst
