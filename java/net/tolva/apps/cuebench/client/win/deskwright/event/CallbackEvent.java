package net.tolva.apps.cuebench.client.win.deskwright.event;

/** Sent once for each TriggerThread: the driver's dispatch thread came round. */
public class CallbackEvent extends WinEvent {
    public CallbackEvent() {
        super(CALLBACK, 0L, 0);
    }
}
