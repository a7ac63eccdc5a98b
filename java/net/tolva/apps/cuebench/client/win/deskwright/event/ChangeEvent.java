package net.tolva.apps.cuebench.client.win.deskwright.event;

/** A change reported by the classic client. */
public class ChangeEvent extends WinEvent {
    public ChangeEvent(int type, long handle, int code) {
        super(type, handle, code);
    }
}
