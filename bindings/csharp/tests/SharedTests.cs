// What is shared by the whole process: who waits for whom, and the current directory. Shared.cs
// is compiled into the tests, since the assembly keeps it to itself.
using System;
using System.Collections.Generic;
using System.IO;
using System.Threading;
using Tessera;

public class SharedTests : HomeTest
{
    private readonly string before = Directory.GetCurrentDirectory();
    private readonly List<string> log = new List<string>();

    public override void Dispose()
    {
        Directory.SetCurrentDirectory(before);
        base.Dispose();
    }

    private void Log(string text)
    {
        lock (log) log.Add(text);
    }

    /// <summary>A thread that uses a state, and has had time to come as far as it can.</summary>
    private Thread Use(Shared<string> shared, string state)
    {
        var thread = new Thread(() => shared.Use(state, () =>
        {
            Log("in " + state);
            return 0;
        }));
        thread.Start();
        while ((thread.ThreadState & (ThreadState.WaitSleepJoin | ThreadState.Stopped)) == 0) Thread.Sleep(1);
        Thread.Sleep(20);
        return thread;
    }

    public void NobodyOvertakesWhoWaits()
    {
        var shared = new Shared<string>(Log, () => Log("end"));
        Thread first = null, second = null;
        shared.Use("a", () =>
        {
            first = Use(shared, "b");
            second = Use(shared, "a");
            Expect.Equal("a", string.Join(", ", log));
            return 0;
        });
        first.Join();
        second.Join();
        Expect.Equal("a, end, b, in b, end, a, in a, end", string.Join(", ", log));
    }

    public void UsersOfOneStateAreLetInTogether()
    {
        var shared = new Shared<string>(Log, () => Log("end"));
        shared.Use("a", () =>
        {
            Use(shared, "a").Join();
            return 0;
        });
        Expect.Equal("a, in a, end", string.Join(", ", log));
    }

    public void AStateThatCannotBeMadeLeavesTheOthersFree()
    {
        var shared = new Shared<string>(state =>
        {
            if (state == "bad") throw new IOException(state);
        }, () => Log("end"));
        Expect.Throws<IOException>(() => shared.Use("bad", () => 0));
        Expect.Equal(5, shared.Use("good", () => 5));
        Expect.Equal("end", string.Join(", ", log));
    }

    public void TheDirectoryComesBackAfterAnException()
    {
        Expect.Throws<InvalidOperationException>(() => CurrentDirectory.In<int>(Home, () =>
        {
            Expect.Equal(Home, Directory.GetCurrentDirectory());
            throw new InvalidOperationException();
        }));
        Expect.Equal(before, Directory.GetCurrentDirectory());
    }

    public void ADirectoryThatTheHostChangedToDuringACallIsLeftAlone()
    {
        string other = NewHome("other");
        CurrentDirectory.In(Home, () =>
        {
            Directory.SetCurrentDirectory(other);
            return 0;
        });
        Expect.Equal(other, Directory.GetCurrentDirectory());
    }

    public void APlaceThatIsGoneIsNoFailure()
    {
        string gone = NewHome("gone");
        Directory.SetCurrentDirectory(gone);
        Expect.Equal(7, CurrentDirectory.In(Home, () =>
        {
            Directory.Delete(gone);
            return 7;
        }));
        Directory.CreateDirectory(gone);
        Directory.SetCurrentDirectory(gone);
        Directory.Delete(gone);
        Expect.Equal(8, CurrentDirectory.In(Home, () => 8));
    }
}
