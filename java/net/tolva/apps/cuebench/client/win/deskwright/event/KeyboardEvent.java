package net.tolva.apps.cuebench.client.win.deskwright.event;

/** A key went down or up; code is the Win32 message (256, 257, 260, 261). */
public class KeyboardEvent extends WinEvent {
    private final int vk;
    private final int character;
    private final boolean shift;
    private final boolean ctrl;
    private final boolean alt;

    public KeyboardEvent(int type, long handle, int code, int vk, int character, boolean shift, boolean ctrl,
            boolean alt) {
        this(type, handle, code, vk, character, shift, ctrl, alt, 0L);
    }

    public KeyboardEvent(int type, long handle, int code, int vk, int character, boolean shift, boolean ctrl,
            boolean alt, long timestamp) {
        super(type, handle, code, timestamp);
        this.vk = vk;
        this.character = character;
        this.shift = shift;
        this.ctrl = ctrl;
        this.alt = alt;
    }

    public int getVk() { return vk; }
    public int getCharacter() { return character; }
    public boolean isShift() { return shift; }
    public boolean isCtrl() { return ctrl; }
    public boolean isAlt() { return alt; }
}
