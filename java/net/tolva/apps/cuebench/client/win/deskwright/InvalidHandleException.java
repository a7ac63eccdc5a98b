package net.tolva.apps.cuebench.client.win.deskwright;

/** Thrown by a native when an element handle names no element (any more). */
public class InvalidHandleException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    public InvalidHandleException(String message) {
        super(message);
    }
}
