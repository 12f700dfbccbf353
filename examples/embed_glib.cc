// The library inside the main loop of GLib, as in a program of GTK: one thread, timers of GLib and connections of the library.
#include <glib-unix.h>
#include <glib.h>

#include <cstdio>

#include "talvo/callbacks.h"

// A source of GLib that runs a reactor, until StopEventLoop, which ends the main loop. GLib calls no source from inside itself,
// so that a nested main loop of a callback does not run it.
struct ReactorSource {
    GSource m_Source;  // first: GLib sees only this
    ICmEmbeddedLoop* m_pLoop;
    GMainLoop* m_pMainLoop;

    static void Attach(ICmEmbeddedLoop* aLoop, GMainLoop* aMainLoop) {
        static GSourceFuncs s_Functions = {Prepare, nullptr, Dispatch, nullptr, nullptr, nullptr};
        GSource* pSource = g_source_new(&s_Functions, sizeof(ReactorSource));
        Of(pSource).m_pLoop = aLoop;
        Of(pSource).m_pMainLoop = aMainLoop;
        g_source_add_unix_fd(pSource, aLoop->GetPollHandle(), G_IO_IN);
        g_source_attach(pSource, g_main_loop_get_context(aMainLoop));
        g_source_unref(pSource);  // the context holds it
    }

private:
    static ReactorSource& Of(GSource* aSource) { return *reinterpret_cast<ReactorSource*>(aSource); }
    static gboolean Prepare(GSource* aSource, gint* aTimeout) {
        *aTimeout = Of(aSource).m_pLoop->GetTimeout();
        if (*aTimeout > 0)
            g_source_set_ready_time(aSource, g_get_monotonic_time() + gint64{*aTimeout} * 1000);
        return *aTimeout == 0;
    }
    static gboolean Dispatch(GSource* aSource, GSourceFunc, gpointer) {
        g_source_set_ready_time(aSource, -1);
        if (Of(aSource).m_pLoop->RunOnce() != CM_OK)
            g_main_loop_quit(Of(aSource).m_pMainLoop);
        return G_SOURCE_CONTINUE;
    }
};

int main() {
    talvo::application app;
    const auto bound = app.listen("127.0.0.1:0", talvo::package, [](talvo::connection& aPeer) {
        aPeer.on_receive([](talvo::connection& aSelf, const talvo::received& aData) { aSelf.send(aData); });
    });
    if (!bound)
        return 1;
    int nAnswers = 0;
    talvo::connection client = app.connect(bound->to_string(), talvo::package);
    client.on_receive([&](const talvo::received& aData) {
        std::printf("answer %d: %s\n", ++nAnswers, aData.str().c_str());
        if (nAnswers == 3)
            app.stop();
    });
    const auto send = [](gpointer aClient) -> gboolean {
        static_cast<talvo::connection*>(aClient)->send("hello");
        return G_SOURCE_CONTINUE;
    };
    GMainLoop* pMainLoop = g_main_loop_new(nullptr, FALSE);
    ReactorSource::Attach(app.embedded_loop(), pMainLoop);
    g_timeout_add(20, send, &client);
    g_main_loop_run(pMainLoop);
    g_main_loop_unref(pMainLoop);
    return nAnswers == 3 ? 0 : 1;
}
